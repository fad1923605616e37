#include <AnyCodable/JSONSerialization.hpp>
#include <KivSDK/API/APIEndpoint.hpp>
#include <KivSDK/Model/KivReport.hpp>

#include <iostream>

int main() {
  kiv::KivReport report("Package check");
  const auto json = zu::JSONSerialization::data(report.dictionaryRepresentation());
  if (!json) return 1;
  std::cout << std::string(json->begin(), json->end()) << "\n";
  std::cout << kiv::KivAPI::APIEndpoint::postReport(report).url().absoluteString() << "\n";
  return report.certificationCanBeRequested() ? 1 : 0;
}
