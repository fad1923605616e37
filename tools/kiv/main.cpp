// kiv: evidence reports from the shell. A host application of the SDK like any other: it keeps the SDK's
// own report store and folders, and talks to the certification service through KivAPI.
#include <algorithm>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>

#include "Commands.hpp"
#include "Context.hpp"

namespace kivcli {
namespace {

/// Adds the subcommand `name` to `parent`; `body` runs when it is chosen, after the context is applied.
CLI::App* addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> body) {
  CLI::App* command = parent.add_subcommand(name, description);
  command->callback([&context, body = std::move(body)] {
    context.apply();
    body();
  });
  return command;
}

/// Adds the required argument REPORT (see `ReportStore::find`), stored in `selector`.
void addReportArgument(CLI::App& command, std::string& selector) {
  command.add_option("REPORT", selector, "Id, id prefix, slug or name")->required();
}

void addGlobalOptions(CLI::App& app, Context& context) {
  app.add_flag("--json", context.json, "Print one JSON document on standard output, for scripts");
  app.add_flag("-v,--verbose", context.verbose, "Log the SDK's work on standard error (-vv: requests too)");
  app.add_option("--token", context.token, "The application token for the service")->envname("KIV_APP_TOKEN");
  app.add_option("--service", context.service,
                 "The service's https address, when not the one this build talks to")
      ->envname("KIV_SERVICE_URL");
  app.add_option(
         "--ca", context.ca,
         "A CA certificate (PEM) to trust for the service, besides the system's; for verify --offline, "
         "the CA the certificate must chain to")
      ->envname("KIV_SERVICE_CA");
  app.add_option(
         "--data", context.data,
         "The application data folder, shared with kiv-capture (default: kiv in the user's data folder)")
      ->envname("KIV_DATA_DIR");
  app.add_option("--timeout", context.timeout,
                 "Seconds an operation may go without any answer or progress before kiv gives up")
      ->envname("KIV_TIMEOUT")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
}

/// What the commands read from the command line; CLI11 fills it while it parses.
struct Options {
  Context context;
  std::string report;                 ///< the REPORT of report show, report rm and sign
  std::vector<std::string> verified;  ///< verify's REPORT, or with --offline the CERTIFICATE and FILEs
  bool offline = false;
  NewReportOptions newReport;
  RemoveOptions removal;
  AddOptions add;
  ReportOptions service;
  NewsletterOptions newsletter;
  TransferOptions transfer;
};

void addReportCommands(CLI::App& app, Options& options) {
  Context& context = options.context;
  CLI::App* report = app.add_subcommand("report", "Create, list, show and remove the reports on this device");
  report->require_subcommand(1);

  NewReportOptions& created = options.newReport;
  CLI::App* make = addCommand(*report, context, "new", "Create a report and print its id",
                              [&context, &created] { createReport(context, created); });
  make->add_option("NAME", created.name, "The report's title")->required();
  make->add_option("--note", created.note, "A note kept with the report");
  make->add_option("--email", created.email, "Where the service sends the certificate");
  make->add_option("--meta", created.metadata, "Metadata, key=value (repeatable)");

  addCommand(*report, context, "list", "List the reports: id, name, files, status, slug",
             [&context] { listReports(context); });

  std::string& selector = options.report;
  addReportArgument(*addCommand(*report, context, "show", "Show a report and its files",
                                [&context, &selector] { showReport(context, selector); }),
                    selector);
  RemoveOptions& removal = options.removal;
  CLI::App* remove = addCommand(*report, context, "rm", "Remove a report with its media and certificate",
                                [&context, &removal] { removeReport(context, removal); });
  addReportArgument(*remove, removal.report);
  remove->add_flag("-y,--yes", removal.yes, "Do not ask before deleting the report's evidence");
}

/// kiv verify: a report on this device, or with --offline a certificate and media files.
void verifyReportOrCertificate(const Options& options) {
  if (options.offline) {
    if (options.verified.empty()) reject("verify --offline takes CERTIFICATE.pdf [FILE or FOLDER...]");
    const std::vector<std::string> files(options.verified.begin() + 1, options.verified.end());
    return verifyCertificate(options.context, {options.verified.front(), files});
  }
  if (options.verified.size() != 1)
    reject("verify takes one REPORT (or --offline CERTIFICATE.pdf [FILE...])");
  verifyReport(options.context, options.verified.front());
}

void addMediaCommands(CLI::App& app, Options& options) {
  Context& context = options.context;
  AddOptions& add = options.add;
  CLI::App* adding =
      addCommand(app, context, "add", "Copy media files into a report, named by capture time, and hash them",
                 [&context, &add] { addFiles(context, add); });
  addReportArgument(*adding, add.report);
  adding->add_option("FILE", add.files, "Photos and videos to add")->required();
  adding->add_flag("--move", add.move, "Move the files instead of copying them");

  std::string& selector = options.report;
  addReportArgument(
      *addCommand(app, context, "sign",
                  "Sign device statements about the report's files (kiv add signs them already)",
                  [&context, &selector] { signReport(context, selector); }),
      selector);

  CLI::App* verify = addCommand(
      app, context, "verify",
      "Hash every file again and compare with the recorded digests and the service's status; with --offline, "
      "check a signed certificate and its media files with no network",
      [&options] { verifyReportOrCertificate(options); });
  verify->add_option("REPORT", options.verified,
                     "Id, id prefix, slug or name; with --offline: CERTIFICATE.pdf [FILE or FOLDER...]");
  verify->add_flag(
      "--offline", options.offline,
      "Check the certificate's signature, manifest, time-stamp and device statements against the CA "
      "(--ca), and the given media files against the manifest");
}

void addServiceCommands(CLI::App& app, Options& options) {
  Context& context = options.context;
  ReportOptions& report = options.service;
  const auto withReport = [&](const std::string& name, const std::string& description, auto body) {
    CLI::App* command =
        addCommand(app, context, name, description, [&context, &report, body] { body(context, report); });
    addReportArgument(*command, report.report);
    return command;
  };
  withReport("send", "Submit the report to the service (create or update it) and keep its slugs", sendReport)
      ->add_option("--lang", report.language, "The language of the service's answers")
      ->capture_default_str();
  CLI::App* status = withReport("status", "Fetch the report's proof status", reportStatus);
  status->add_flag("--force", report.force, "Have the service check the content again");
  status->add_option("--wait", report.wait, "Poll for up to this many seconds until confirmed or failed")
      ->check(CLI::NonNegativeNumber);
  withReport("pdf", "Download the report's certificate and print its path", fetchCertificate)
      ->add_option("--lang", report.language, "The certificate's language")
      ->capture_default_str();

  NewsletterOptions& newsletter = options.newsletter;
  CLI::App* subscribe = addCommand(app, context, "newsletter", "Register the user's newsletter subscriptions",
                                   [&context, &newsletter] { updateNewsletters(context, newsletter); });
  subscribe->add_option("--email", newsletter.email, "The user's e-mail address")->required();
  subscribe->add_option("--phone", newsletter.phone, "The user's phone number");
  subscribe->add_option("--list", newsletter.lists, "NAME=on or NAME=off (repeatable)")->required();
  subscribe->add_option("--lang", newsletter.language, "The language of the service's answers")
      ->capture_default_str();
}

void addTransferCommands(CLI::App& app, Options& options) {
  Context& context = options.context;
  TransferOptions& transfer = options.transfer;
  CLI::App* upload =
      addCommand(app, context, "upload", "Upload the content of every file not on the service yet",
                 [&context, &transfer] { uploadFiles(context, transfer); });
  addReportArgument(*upload, transfer.report);
  upload->add_flag("--force", transfer.force, "Try again now, even within 30 minutes of the last attempt");

  addReportArgument(
      *addCommand(app, context, "download", "Download the content of every file missing on this device",
                  [&context, &transfer] { downloadFiles(context, transfer); }),
      transfer.report);
}

/// The whole command line: the global options, then every command with its own.
void defineCommandLine(CLI::App& app, Options& options) {
  app.fallthrough();
  app.require_subcommand(1);
  app.footer(
      "REPORT is a report's id, a unique prefix of it, its slug or its exact name.\n"
      "Exit codes: 0 success, 1 the operation failed, 2 usage error. With --json, a failure before the\n"
      "command's result prints {\"error\": message, \"exitCode\": code} on standard output as well.");
  addGlobalOptions(app, options.context);
  addReportCommands(app, options);
  addMediaCommands(app, options);
  addServiceCommands(app, options);
  addTransferCommands(app, options);
}

/// The number of edits that turn `a` into `b`, a swap of neighbours counting as one (typing slips).
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      d[i][j] =
          std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
    }
  }
  return d[a.size()][b.size()];
}

/// The long options (`option`) or the commands that the commands the parse went through offer.
std::vector<std::string> namesInReach(const CLI::App& app, bool option) {
  std::vector<std::string> names;
  for (const CLI::App* command = &app; command != nullptr;) {
    if (option) {
      for (const CLI::Option* each : command->get_options()) {
        for (const std::string& name : each->get_lnames()) names.push_back("--" + name);
      }
    } else {
      for (const CLI::App* sub : command->get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(sub->get_name());
      }
    }
    const std::vector<CLI::App*> chosen = command->get_subcommands();
    command = chosen.empty() ? nullptr : chosen.front();
  }
  return names;
}

/// The name in `names` nearest to `typed`, when it is near enough to be what was meant.
std::optional<std::string> nearestName(const std::string& typed, const std::vector<std::string>& names) {
  std::optional<std::string> nearest;
  std::size_t best = std::max<std::size_t>(1, typed.size() / 3) + 1;
  for (const std::string& name : names) {
    if (const std::size_t distance = editDistance(typed, name); distance < best) {
      nearest = name;
      best = distance;
    }
  }
  return nearest;
}

/// The line for a command line that cannot be carried out; a misspelt command or option gets its nearest
/// name.
std::string usageMessage(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> strays = app.remaining(true);
  if (!strays.empty()) {
    const std::string& stray = strays.front();
    const bool option = stray.starts_with('-');
    if (const auto meant = nearestName(stray, namesInReach(app, option))) {
      return (option ? "unknown option " + stray : "unknown command \"" + stray + "\"") + ": did you mean " +
             *meant + "?";
    }
  }
  return std::string(error.what()) + "; kiv --help shows the commands and options";
}

/// Reports the failure `message`, on standard error and, with --json, on standard output; answers `code`.
int end(const Context& context, const std::string& message, ExitCode code) {
  context.printError(message, code);
  std::cerr << "kiv: " << message << std::endl;  // standard error is tied to standard output: both are out
  return code;
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("kiv: capture evidence into reports, certify them with the service, fetch certificates");
  try {
    defineCommandLine(app, options);
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);  // --help
    // Flags are stored once the whole line is read: a line that failed before may hold --json all the same.
    options.context.json =
        options.context.json || std::find(argv, argv + argc, std::string_view("--json")) != argv + argc;
    return end(options.context, usageMessage(app, error), ExitCode::usage);
  } catch (const CommandError& error) {
    // Operations may still be running on the SDK's threads: leave without waiting for them.
    std::_Exit(end(options.context, error.what(), error.exitCode()));
  } catch (const std::exception& error) {
    std::_Exit(end(options.context, error.what(), ExitCode::failed));
  }
  return ExitCode::success;
}

}  // namespace
}  // namespace kivcli

int main(int argc, char** argv) {
  try {
    return kivcli::run(argc, argv);
  } catch (...) {
    return kivcli::ExitCode::failed;  // the program's set-up failed before a line could be written
  }
}
