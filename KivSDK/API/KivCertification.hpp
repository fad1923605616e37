#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "KivSDK/Model/KivFile.hpp"
#include "KivSDK/Model/KivReport.hpp"
#include "ZuFoundation/Error.hpp"

namespace kiv {

/**
 * The common evidence flow in one call, made of `KivAPI`'s operations: the report's digests are calculated
 * and the report is sent; the content of every file the service does not hold yet is uploaded, all files at
 * once, with progress; then the service is asked to check the content and asked again, once a second, until
 * it says "confirmed" or "failed", or the time-out passes. The first step that fails ends the flow.
 *
 * @code
 * kiv::KivCertification::Options options;
 * options.progress = [](const kiv::KivFile& file, std::int64_t done, std::int64_t expected) { ... };
 * kiv::KivCertification::certify(report, options, [](kiv::KivCertification::Outcome outcome) {
 *   keep(outcome.report);  // whatever happened: once sent, it carries the service's slugs
 *   if (outcome.error) show(outcome.error->localizedDescription());
 * });
 * @endcode
 *
 * @par Thread Safety
 * `certify` may be called from any thread; each flow runs on a thread of its own, on which `completion` is
 * called exactly once. `progress` is called on the networking layer's threads.
 */
class KivCertification {
 public:
  /// The steps of the flow, in order.
  enum class Step { send, upload, confirmation };

  /// The domain of the errors the flow finds itself, with codes `ErrorCode`.
  static constexpr std::string_view errorDomain = "KivCertificationErrorDomain";
  enum ErrorCode : long {
    /// The service holds content that does not match its digest: the report is "failed".
    contentRejected = 1,
    /// The service had not confirmed the report when the time-out passed.
    notConfirmedInTime = 2,
  };

  struct Options {
    /// The language of the service's answers ("Accept-Language").
    std::string language = "en";
    /// How long the service may take to confirm the report once its content is uploaded.
    std::chrono::seconds confirmationTimeout{60};
    /// Bytes of `file`'s content uploaded so far, and expected in all (-1 when not known).
    std::function<void(const KivFile& file, std::int64_t done, std::int64_t expected)> progress;
  };

  struct Outcome {
    /**
     * The report as far as the flow took it: keep it whatever happened. Once sent it carries the service's
     * slugs, once uploaded its files' addresses and attempt dates, and in the end the service's status.
     */
    KivReport report;
    /// The step that failed; nothing when the report was confirmed.
    std::optional<Step> failedStep;
    /**
     * Why it failed: the operation's error, its text prefixed with the step ("sending the report: ",
     * "uploading 20240501_120000.jpg: ", "checking the report: "), or one of `ErrorCode`.
     */
    std::optional<zu::Error> error;
  };

  KivCertification() = delete;

  /// Runs the flow for `report`, a copy of which every step works on; see the class.
  static void certify(const KivReport& report, Options options, std::function<void(Outcome)> completion);
};

}  // namespace kiv
