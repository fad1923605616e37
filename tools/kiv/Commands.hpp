#pragma once

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "Context.hpp"

namespace kivcli {

/// Adds the subcommand `name` to `parent`; `body` runs when it is chosen, after the context is applied.
CLI::App* addCommand(CLI::App& parent, Context& context, const std::string& name,
                     const std::string& description, std::function<void()> body);

/// Adds the required argument REPORT (see `ReportStore::find`), stored in `selector`.
void addReportArgument(CLI::App& command, std::string& selector);

// Each adds its group of commands to the program.
void addReportCommands(CLI::App& app, Context& context);    // report new|list|show|rm
void addMediaCommands(CLI::App& app, Context& context);     // add, verify
void addServiceCommands(CLI::App& app, Context& context);   // send, status, pdf, newsletter
void addTransferCommands(CLI::App& app, Context& context);  // upload, download

}  // namespace kivcli
