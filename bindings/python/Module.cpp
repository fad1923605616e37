// kivsdk._kivsdk: the SDK's evidence flow for Python. The package kivsdk re-exports it.
#include "Bindings.hpp"

PYBIND11_MODULE(_kivsdk, module) {
  module.doc() =
      "Evidence capture and certification: reports of photos and videos, their SHA-256 digests, the "
      "report store, the certification service and offline verification of its certificates.";
  kivpy::bindErrors(module);
  kivpy::bindRecords(module);
  kivpy::bindService(module);
  kivpy::bindProvenance(module);
}
