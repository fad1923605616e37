// kiv: evidence reports from the shell. A host application of the SDK like any other: it keeps the SDK's
// own report store and folders, and talks to the certification service through KivAPI.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "Commands.hpp"
#include "Context.hpp"

namespace kivcli {

CLI::App* addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> body) {
  CLI::App* command = parent.add_subcommand(name, description);
  command->callback([&context, body = std::move(body)] {
    context.apply();
    body();
  });
  return command;
}

void addReportArgument(CLI::App& command, std::string& selector) {
  command.add_option("REPORT", selector, "Id, id prefix, slug or name")->required();
}

namespace {

void addGlobalOptions(CLI::App& app, Context& context) {
  app.add_flag("--json", context.json, "Print one JSON document on standard output, for scripts");
  app.add_flag("-v,--verbose", context.verbose, "Log the SDK's work on standard error (-vv: requests too)");
  app.add_option("--token", context.token, "The application token for the service")->envname("KIV_APP_TOKEN");
  app.add_option("--service", context.service,
                 "The service's https address, when not the one this build talks to")
      ->envname("KIV_SERVICE_URL");
  app.add_option("--ca", context.ca, "A CA certificate (PEM) to trust for the service, besides the system's")
      ->envname("KIV_SERVICE_CA");
  app.add_option("--data", context.data, "The application data folder (default: the user's data folder)")
      ->envname("KIV_DATA_DIR");
  app.add_option("--timeout", context.timeout,
                 "Seconds an operation may go without any answer or progress before kiv gives up")
      ->envname("KIV_TIMEOUT")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
}

}  // namespace
}  // namespace kivcli

namespace {

int run(int argc, char** argv) {
  kivcli::Context context;
  CLI::App app("kiv: capture evidence into reports, certify them with the service, fetch certificates");
  try {
    app.fallthrough();
    app.require_subcommand(1);
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
      return std::string(error.what()) + "; kiv --help shows the commands and options\n";
    });
    app.footer(
        "REPORT is a report's id, a unique prefix of it, its slug or its exact name.\n"
        "Exit codes: 0 success, 1 the operation failed, 2 usage error.");
    kivcli::addGlobalOptions(app, context);
    kivcli::addReportCommands(app, context);
    kivcli::addMediaCommands(app, context);
    kivcli::addServiceCommands(app, context);
    kivcli::addTransferCommands(app, context);
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::cerr << "kiv: ";
    app.exit(error);
    return kivcli::ExitCode::usage;
  } catch (const kivcli::CommandError& error) {
    std::cerr << "kiv: " << error.what() << std::endl;
    // Operations may still be running on the SDK's threads: leave without waiting for them.
    std::_Exit(error.exitCode());
  } catch (const std::exception& error) {
    std::cerr << "kiv: " << error.what() << std::endl;
    std::_Exit(kivcli::ExitCode::failed);
  }
  return kivcli::ExitCode::success;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (...) {
    return kivcli::ExitCode::failed;  // the program's set-up failed before a line could be written
  }
}
