#include "KivSDK/Provenance/ProvenanceError.hpp"

#include "AnyCodable/AnyCodable.hpp"

namespace kiv {

zu::Error ProvenanceError::make(Code code, std::string message) {
  return zu::Error(std::string(domain), code,
                   {{std::string(zu::Error::localizedDescriptionKey), std::move(message)}});
}

}  // namespace kiv
