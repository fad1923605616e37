#include "KivSDK/Model/KivReportList.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

using kiv::KivReport;

KivReport report(const std::string& id, const std::string& name, std::optional<std::string> slug = {}) {
  KivReport made(name);
  made.id = zu::UUID::fromString(id);
  made.slug = std::move(slug);
  return made;
}

const std::vector<KivReport> kReports = {
    report("3F2A0000-0000-4000-8000-000000000001", "Kitchen", "k1tch3n"),
    report("3F2B0000-0000-4000-8000-000000000002", "Garden"),
    // A name that is another report's slug, and one that looks like the start of the ids.
    report("7C000000-0000-4000-8000-000000000003", "k1tch3n"),
    report("8D000000-0000-4000-8000-000000000004", "3F2"),
};

struct Selection {
  const char* label;
  const char* selector;
  /// The index found, or -1 with `code`.
  int found;
  int code;
  const char* message;
};

void PrintTo(const Selection& selection, std::ostream* out) { *out << selection.label; }

class FindReport : public ::testing::TestWithParam<Selection> {};

TEST_P(FindReport, ByIdSlugNameOrIdPrefixInThatOrder) {
  const Selection& selection = GetParam();
  const auto found = kiv::findReport(kReports, selection.selector);
  if (selection.found >= 0) {
    ASSERT_TRUE(found) << found.error().localizedDescription();
    EXPECT_EQ(*found, static_cast<std::size_t>(selection.found));
    return;
  }
  ASSERT_FALSE(found);
  EXPECT_EQ(found.error().code(), selection.code);
  EXPECT_EQ(found.error().localizedDescription(), selection.message);
}

INSTANTIATE_TEST_SUITE_P(
    Selectors, FindReport,
    ::testing::Values(Selection{"id_in_lower_case", "3f2b0000-0000-4000-8000-000000000002", 1, 0, ""},
                      Selection{"slug_before_name", "k1tch3n", 0, 0, ""},
                      Selection{"name", "Garden", 1, 0, ""}, Selection{"name_before_prefix", "3F2", 3, 0, ""},
                      Selection{"unique_prefix", "7c", 2, 0, ""},
                      Selection{"ambiguous_prefix", "3f", -1, EINVAL, "\"3f\" names 2 reports"},
                      Selection{"name_in_other_case", "garden", -1, ENOENT, "no report \"garden\""},
                      Selection{"empty", "", -1, EINVAL, "a report must be named by its id, slug or name"}),
    [](const auto& info) { return std::string(info.param.label); });

TEST(CheckNewReportName, RefusesANameInUseOrNoPlainFileName) {
  EXPECT_FALSE(kiv::checkNewReportName(kReports, "Attic"));
  EXPECT_FALSE(kiv::checkNewReportName(kReports, "kitchen")) << "names differ in letter case";

  const auto taken = kiv::checkNewReportName(kReports, "Garden");
  ASSERT_TRUE(taken);
  EXPECT_EQ(taken->code(), EEXIST);
  EXPECT_EQ(
      taken->localizedDescription(),
      "a report named \"Garden\" exists already (id 3F2B0000-0000-4000-8000-000000000002): two reports of "
      "one name would replace each other's certificate");
  for (const char* name : {"", ".", "..", "a/b"}) {
    const auto refused = kiv::checkNewReportName({}, name);
    ASSERT_TRUE(refused) << name;
    EXPECT_EQ(refused->code(), EINVAL);
  }
}

}  // namespace
