// Certificates checked offline come from anyone: whatever the bytes, reading the PDF's objects, its signature
// and attachments and checking them must end within bounds with a verdict of every document check. The CA
// trusted here had its key thrown away when it was made, so no input can pass.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "KivSDK/Provenance/ProvenanceVerifier.hpp"

namespace {

constexpr const char* kThrowawayCA = R"(-----BEGIN CERTIFICATE-----
MIIBljCCATugAwIBAgIUL3IB8Wc6Sky7vmKLbvyVFNVf7GUwCgYIKoZIzj0EAwIw
HzEdMBsGA1UEAwwUVGhyb3dhd2F5IGZ1enppbmcgQ0EwIBcNMjYxMTI1MTYwNzE1
WhgPMjEyNjExMDExNjA3MTVaMB8xHTAbBgNVBAMMFFRocm93YXdheSBmdXp6aW5n
IENBMFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEknCSEEAS6Q3nHB0p/4UWyL+u
uP0VNv928q1rtPZ8uKIJXbNw/xfrJ+HIG4TN+INgzo/dc2q2D7biHDJfPMI8eqNT
MFEwHQYDVR0OBBYEFNUnfMH/6I5g+uC77HrALs7qrDteMB8GA1UdIwQYMBaAFNUn
fMH/6I5g+uC77HrALs7qrDteMA8GA1UdEwEB/wQFMAMBAf8wCgYIKoZIzj0EAwID
SQAwRgIhAPNQb1JhEr+8XMEV/whDUHb7qMlResG6uGX8W7pSyJ+eAiEA3XFgoEUa
PW7auPb0kw/Ufu5e2ftOaRVmHw7r0z0/nuA=
-----END CERTIFICATE-----
)";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const kiv::ProvenanceVerifier verifier = *kiv::ProvenanceVerifier::trusting(kThrowawayCA);
  const kiv::ProvenanceVerification result = verifier.verify(std::span(data, size), {});
  if (result.passed()) std::abort();
  for (const char* name : {"pdf-signature", "pdf-coverage", "manifest-signature", "timestamp"}) {
    if (!result.check(name)) std::abort();
  }
  return 0;
}
