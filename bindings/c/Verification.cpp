// Offline verification of certificates through C.
#include <string>
#include <vector>

#include "KivSDK/Provenance/ProvenanceVerifier.hpp"
#include "ZuFileManager/ZuFileManager.hpp"
#include "detail/Boundary.hpp"

using namespace kiv::detail::capi;  // NOLINT(google-build-using-namespace): the boundary's vocabulary

namespace {

std::vector<std::string> paths(const char* const* files, size_t count) {
  if (files == nullptr && count > 0) throw ArgumentError("files is NULL");
  std::vector<std::string> result;
  result.reserve(count);
  for (size_t index = 0; index < count; ++index) {
    result.push_back(utf8(files[index], ("files[" + std::to_string(index) + "]").c_str()));
  }
  return result;
}

const kiv::ProvenanceCheck& checkAt(const kiv_verification* verification, size_t index) {
  const auto& checks = valueOf(verification).checks;
  if (index >= checks.size()) throw ArgumentError("no check at index " + std::to_string(index));
  return checks[index];
}

}  // namespace

extern "C" {

kiv_status kiv_verifier_new(const char* ca_pem, kiv_verifier** verifier) {
  return guarded([&] {
    const std::string authorities = utf8(ca_pem, "ca_pem");
    giveHandle(verifier, take(kiv::ProvenanceVerifier::trusting(authorities)), "verifier");
  });
}

void kiv_verifier_free(kiv_verifier* verifier) { delete verifier; }

kiv_status kiv_verify(const kiv_verifier* verifier, const char* pdf_path, const char* const* files,
                      size_t count, kiv_verification** verification) {
  return guarded([&] {
    const kiv::ProvenanceVerifier& checker = valueOf(verifier);
    const std::string path = utf8(pdf_path, "pdf_path");
    const std::vector<std::string> media = paths(files, count);
    deref(verification, "verification");
    const auto pdf = zu::ZuFileManager::contents(path);
    if (!pdf) throw zu::Error::posix(ENOENT, "cannot read the certificate " + path);
    giveHandle(verification, checker.verify(*pdf, media), "verification");
  });
}

void kiv_verification_free(kiv_verification* verification) { delete verification; }

kiv_status kiv_verification_passed(const kiv_verification* verification, int* passed) {
  return guarded([&] { deref(passed, "passed") = valueOf(verification).passed() ? 1 : 0; });
}

kiv_status kiv_verification_check_count(const kiv_verification* verification, size_t* count) {
  return guarded([&] { deref(count, "count") = valueOf(verification).checks.size(); });
}

kiv_status kiv_verification_check_at(const kiv_verification* verification, size_t index, char** name,
                                     int* passed, char** message) {
  return guarded([&] {
    const kiv::ProvenanceCheck& check = checkAt(verification, index);
    if (passed != nullptr) *passed = check.passed ? 1 : 0;
    if (name != nullptr) *name = newString(check.name);
    if (message != nullptr) *message = newString(check.message);
  });
}

kiv_status kiv_verification_slug(const kiv_verification* verification, char** slug) {
  return guarded([&] { give(slug, valueOf(verification).slug, "slug"); });
}

}  // extern "C"
