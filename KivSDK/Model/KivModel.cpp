#include "KivSDK/Model/KivModel.hpp"

#include "KivSDK/Model/detail/PersistedForm.hpp"
#include "ZuUserDefaults/ZuUserDefaults.hpp"

namespace kiv {

// A write the store could not make has no one to report to: like the platform's user defaults, the
// operations here fail silently, and the next persist tries again.

// The list is encoded once the stored one has been let go, so that the two are never in memory together; a
// list that cannot be encoded leaves none stored.
void KivModel::persist(const std::vector<KivReport>& reports) {
  const auto encoded = [&]() -> std::optional<zu::Data> {
    auto bytes = detail::encodeReports(reports);
    return bytes ? std::optional(std::move(*bytes)) : std::nullopt;
  };
  (void)zu::ZuUserDefaults::standard().set(encoded, Const::UD::reports);
}

// The version and the list come from one read of the store, and the list is decoded where it lies.
std::vector<KivReport> KivModel::loadFromStore() {
  auto& defaults = zu::ZuUserDefaults::standard();
  const auto stored = defaults.snapshot();
  if (stored.integer(Const::UD::version) != Const::currentVersion) {
    (void)defaults.removeObject(Const::UD::reports);
    (void)defaults.set(Const::currentVersion, Const::UD::version);
    return {};
  }
  const auto bytes = stored.data(Const::UD::reports);
  if (!bytes) return {};
  auto reports = detail::decodeReports(*bytes);
  return reports ? std::move(*reports) : std::vector<KivReport>{};
}

}  // namespace kiv
