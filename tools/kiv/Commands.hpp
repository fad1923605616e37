#pragma once

#include <string>
#include <vector>

#include "Context.hpp"

// The commands of kiv, each a function of the global options and its own; main.cpp turns the command line
// into these calls.
namespace kivcli {

// kiv report new|list|show|rm: the report list on this device.
struct NewReportOptions {
  std::string name;
  std::string note;
  std::string email;
  std::vector<std::string> metadata;  ///< key=value texts
};
void createReport(const Context& context, const NewReportOptions& options);
void listReports(const Context& context);
void showReport(const Context& context, const std::string& selector);
struct RemoveOptions {
  std::string report;
  /// Remove without asking; without it, kiv asks at the terminal and refuses when there is none.
  bool yes = false;
};
void removeReport(const Context& context, const RemoveOptions& options);

// kiv add, verify: media files of a report on this device, and their digests.
struct AddOptions {
  std::string report;
  std::vector<std::string> files;
  bool move = false;
};
void addFiles(const Context& context, const AddOptions& options);
void verifyReport(const Context& context, const std::string& selector);

// kiv sign, verify --offline: device statements about a report's files, and signed certificates.
void signReport(const Context& context, const std::string& selector);
struct OfflineVerifyOptions {
  std::string certificate;
  std::vector<std::string> files;  ///< media files or folders of them
};
void verifyCertificate(const Context& context, const OfflineVerifyOptions& options);

// kiv send, status, pdf: the service's report operations.
struct ReportOptions {
  std::string report;
  std::string language = "en";
  bool force = false;
  double wait = 0;
};
void sendReport(const Context& context, const ReportOptions& options);
void reportStatus(const Context& context, const ReportOptions& options);
void fetchCertificate(const Context& context, const ReportOptions& options);

// kiv newsletter: the user's subscriptions.
struct NewsletterOptions {
  std::string email;
  std::string phone;
  std::vector<std::string> lists;  ///< NAME=on or NAME=off
  std::string language = "en";
};
void updateNewsletters(const Context& context, const NewsletterOptions& options);

// kiv upload, download: the content of a report's files, with progress.
struct TransferOptions {
  std::string report;
  bool force = false;
};
void uploadFiles(const Context& context, const TransferOptions& options);
void downloadFiles(const Context& context, const TransferOptions& options);

}  // namespace kivcli
