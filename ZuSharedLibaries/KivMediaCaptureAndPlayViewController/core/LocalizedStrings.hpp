#pragma once

#include <string>
#include <string_view>

namespace zu {

/**
 * The capture library's text for a localisation key ("CameraAccessDeniedErrorDescription",
 * "NoBackWideAngleCameraErrorDescription"); like the platform, the key itself when the table has no text for
 * it. The texts are English.
 */
std::string localizedCaptureString(std::string_view key);

}  // namespace zu
