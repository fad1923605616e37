#include "Context.hpp"

#include <unistd.h>

#include <iostream>

#include "AnyCodable/JSONSerialization.hpp"
#include "DataFolder.hpp"
#include "KivSDK/API/APIEndpoint.hpp"
#include "KivSDK/API/KivAPI.hpp"
#include "ServiceRedirect.hpp"
#include "ZuLogger/ZuLogger.hpp"

namespace kivcli {

void Context::apply() const {
  useDataFolder(data);
  if (verbose == 0) return;
  // Standard output belongs to the command's result (one JSON document with --json): log lines go to
  // standard error.
  zu::ZuLogger::setSink([](std::string_view line) { std::cerr << line << '\n'; });
  zu::ZuLogger::setLogLevel(verbose == 1 ? zu::ZuLogger::LogLevel::info : zu::ZuLogger::LogLevel::debug);
}

void Context::connect(bool needsToken) const {
  if (needsToken && token.empty()) reject("no application token: pass --token TOKEN or set KIV_APP_TOKEN");
  if (!service.empty() || !ca.empty()) {
    std::string base = service.empty() ? std::string(kiv::KivAPI::APIEndpoint::baseURL()) : service;
    if (!base.starts_with("https://")) reject("--service needs an https address, not \"" + base + "\"");
    while (base.ends_with('/')) base.pop_back();
    kiv::KivAPI::set_ZuNetworkingType(redirectedNetworkingType(base, ca));
  }
  if (!token.empty()) kiv::KivAPI::setup(token);
}

void Context::print(const zu::AnyCodable::Dictionary& document, const std::string& human) const {
  printed = true;
  if (!json) {
    std::cout << human;
    if (!human.empty() && human.back() != '\n') std::cout << '\n';
    return;
  }
  const auto text = zu::JSONSerialization::data(zu::AnyCodable(document));
  if (!text) fail("cannot write the result as JSON: " + text.error().localizedDescription());
  std::cout.write(reinterpret_cast<const char*>(text->data()), static_cast<std::streamsize>(text->size()));
  std::cout << '\n';
}

void Context::printError(const std::string& message, ExitCode code) const {
  if (json && !printed) print({{"error", message}, {"exitCode", static_cast<long>(code)}}, "");
}

bool Context::showsProgress() const { return !json && ::isatty(STDERR_FILENO) == 1; }

}  // namespace kivcli
