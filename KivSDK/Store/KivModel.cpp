#include "KivSDK/Model/KivModel.hpp"

#include "KivSDK/Store/detail/PersistedForm.hpp"
#include "ZuUserDefaults/ZuUserDefaults.hpp"

namespace kiv {

// A write the store could not make has no one to report to: like the platform's user defaults, the
// operations here fail silently, and the next persist tries again.

void KivModel::persist(const std::vector<KivReport>& reports) {
  auto& defaults = zu::ZuUserDefaults::standard();
  if (const auto encoded = detail::encodeReports(reports)) {
    (void)defaults.set(*encoded, Const::UD::reports);
  } else {
    (void)defaults.removeObject(Const::UD::reports);
  }
}

std::vector<KivReport> KivModel::loadFromStore() {
  auto& defaults = zu::ZuUserDefaults::standard();
  if (defaults.integer(Const::UD::version) != Const::currentVersion) {
    (void)defaults.removeObject(Const::UD::reports);
    (void)defaults.set(Const::currentVersion, Const::UD::version);
    return {};
  }
  const auto bytes = defaults.data(Const::UD::reports);
  if (!bytes) return {};
  auto reports = detail::decodeReports(*bytes);
  return reports ? std::move(*reports) : std::vector<KivReport>{};
}

}  // namespace kiv
