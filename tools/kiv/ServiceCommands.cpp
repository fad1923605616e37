// kiv send, status, pdf and newsletter: the certification service's report and subscription operations.
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Commands.hpp"
#include "Documents.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "ReportStore.hpp"
#include "ServiceCommands.hpp"
#include "Statements.hpp"
#include "Waiter.hpp"

namespace kivcli {

kiv::KivReport sentReport(const ReportStore& store, const std::string& selector) {
  const kiv::KivReport& report = store.find(selector);
  if (!report.hasSlug()) fail("report " + report.name + " has not been sent yet: kiv send it first");
  return report;
}

namespace {

bool isFinal(const kiv::KivReport& report) {
  const auto status = report.proofStatus();
  return status == kiv::KivReport::ProofStatus::confirmed || status == kiv::KivReport::ProofStatus::failed;
}

kiv::KivReport fetchStatus(const Context& context, const kiv::KivReport& report, bool force) {
  return *awaitOne<std::optional<kiv::KivReport>>(
      context, "fetching the status of " + report.name, [&](auto completion) {
        if (force) {
          kiv::KivAPI::forceStatusUpdate(report, std::move(completion));
        } else {
          kiv::KivAPI::update(report, std::move(completion));
        }
      });
}

zu::ZuMailList mailList(const std::string& setting) {
  const auto equals = setting.rfind('=');
  const std::string state = equals == std::string::npos ? "" : setting.substr(equals + 1);
  if (equals == 0 || (state != "on" && state != "off")) {
    reject("--list takes NAME=on or NAME=off, not \"" + setting + "\"");
  }
  return {setting.substr(0, equals), "", state == "on"};
}

}  // namespace

void sendReport(const Context& context, const ReportOptions& options) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport hashed = store.find(options.report).withCalculatedHash();
  if (hashed.files.empty()) {
    fail("report " + hashed.name + " has no files: add media with kiv add first");
  }
  for (const kiv::KivFile& file : hashed.files) {
    if (!file.hash)
      fail(fileName(file) + " has no digest and is not on this device: add it again with kiv add");
  }
  context.connect();
  const auto sent = awaitOne<std::optional<kiv::KivReport>>(
      context, "sending " + hashed.name,
      [&](auto completion) { kiv::KivAPI::send(hashed, options.language, std::move(completion)); });
  const kiv::KivReport merged = hashed.merge(*sent);
  ReportStore::save(merged);
  // The service checks statements against the report's digests, so they follow the report; once it is
  // confirmed, its manifest holds them for good (null in the document).
  zu::AnyCodable::Dictionary document = reportDocument(merged);
  std::string statementsText = "its device statements in its manifest";
  if (merged.proofStatus() != kiv::KivReport::ProofStatus::confirmed) {
    zu::AnyCodable::Array statements = sendStatements(context, merged);
    statementsText = std::to_string(statements.size()) + " device statement(s)";
    document.set("statements", std::move(statements));
  } else {
    document.set("statements", zu::AnyCodable());
  }
  context.print(document, "sent " + merged.name + ": slug " + merged.slug.value_or("-") + ", status " +
                              statusText(merged) + ", " + statementsText);
}

void reportStatus(const Context& context, const ReportOptions& options) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport report = sentReport(store, options.report);
  context.connect();
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(options.wait);
  kiv::KivReport updated = fetchStatus(context, report, options.force);
  while (options.wait > 0 && !isFinal(updated) && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::seconds(1));  // polling the service, at most once a second
    updated = fetchStatus(context, updated, options.force);
  }
  ReportStore::save(updated);
  context.print(reportSummary(updated), updated.name + ": " + statusText(updated));
  if (options.wait <= 0) return;
  if (updated.proofStatus() == kiv::KivReport::ProofStatus::failed) {
    fail(updated.name +
         " failed certification: the service holds content that does not match its digest; "
         "kiv verify " +
         updated.name + " names the files");
  }
  if (!isFinal(updated)) {
    fail(updated.name + " is still " + statusText(updated) + " after " + std::to_string(options.wait) +
         " s; upload its files (kiv upload) or wait longer");
  }
}

void fetchCertificate(const Context& context, const ReportOptions& options) {
  const ReportStore store = ReportStore::load();
  const kiv::KivReport report = sentReport(store, options.report);
  context.connect();
  awaitOne<bool>(context, "fetching the certificate of " + report.name, [&](auto completion) {
    kiv::KivAPI::generatePDF(report, options.language, std::move(completion));
  });
  const std::string path = report.pdfURL().path();
  context.print({{"report", reportSummary(report)}, {"pdf", path}}, path);
}

void updateNewsletters(const Context& context, const NewsletterOptions& options) {
  std::vector<zu::ZuMailList> lists;
  for (const std::string& setting : options.lists) lists.push_back(mailList(setting));
  const kiv::KivUserProperties properties(
      options.email, options.phone.empty() ? std::nullopt : std::optional(options.phone), lists);
  context.connect();
  awaitOne<bool>(context, "updating the newsletters of " + options.email, [&](auto completion) {
    kiv::KivAPI::updateNewsletters(properties, options.language, std::move(completion));
  });
  zu::AnyCodable::Dictionary subscriptions;
  std::string text = "newsletters of " + options.email + ":";
  for (const auto& [name, subscribed] : properties.subscriptionsDictionary()) {
    subscriptions.set(name, subscribed);
    text += " " + name + (subscribed ? " on" : " off");
  }
  context.print({{"email", options.email}, {"subscriptions", std::move(subscriptions)}}, text);
}

}  // namespace kivcli
