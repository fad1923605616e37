#pragma once

#include <functional>
#include <string_view>
#include <vector>

#include "KivSDK/Model/KivReport.hpp"

namespace kivcli {

/**
 * The report list as one command sees it. The command reads the list once, works on copies, and hands back
 * what changed in one `create`, `save` or `remove`, which reads the stored list again and applies the change
 * to it while holding the store's lock ("kiv.lock" in the application data folder): a report another process
 * persisted in the meantime stays. A command that stops before then leaves the stored list as it was.
 */
class ReportStore {
 public:
  /// The stored list (setting the store up on its first use).
  static ReportStore load();

  const std::vector<kiv::KivReport>& reports() const { return reports_; }
  /**
   * The report `selector` names (see `kiv::findReport`: its id, slug or exact name, else the one report whose
   * id starts with it). Fails when none does (exit code 1), a usage error when several do.
   */
  const kiv::KivReport& find(std::string_view selector) const;

  /// Adds `report`; fails, naming the stored report, when one has its name (see `kiv::checkNewReportName`).
  static void create(const kiv::KivReport& report);
  /// Stores `report` in place of the stored report with the same id, or adds it.
  static void save(const kiv::KivReport& report);
  /// Removes the stored report with `report`'s id.
  static void remove(const kiv::KivReport& report);

 private:
  explicit ReportStore(std::vector<kiv::KivReport> reports) : reports_(std::move(reports)) {}
  /// Runs `change` on the stored list and persists it, under the store's lock.
  static void commit(const std::function<void(std::vector<kiv::KivReport>&)>& change);

  std::vector<kiv::KivReport> reports_;
};

}  // namespace kivcli
