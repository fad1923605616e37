#include "KivSDK/API/KivAPI.hpp"

#include <mutex>
#include <utility>

#include "KivSDK/API/detail/APIState.hpp"
#include "ZuFileManager/ZuFileManager.hpp"

namespace kiv {
namespace {

// The shared state of the facade. The lock is held while an instance is made, so racing first requests get
// the same instance; it is never held while a request runs or a completion is called.
struct State {
  std::mutex mutex;
  std::optional<std::string> appToken;
  KivAPI::NetworkingType networkingType = KivAPI::standardNetworkingType();
  std::shared_ptr<zu::ZuNetworking> sharedPublicInstance;
  std::shared_ptr<zu::ZuNetworking> sharedClientInstance;
};

State& state() {
  static State instance;
  return instance;
}

// The sessions of the standard networking type, made once: a build for the local reference service adds that
// service's CA to the system's authorities, for these sessions only.
const zu::ZuNetworking::URLSessionType& serviceSessionType() {
  static const zu::ZuNetworking::URLSessionType type = [] {
    auto authorities = KivAPI::serviceCertificateAuthorityFile();
    return authorities ? zu::ZuNetworking::URLSessionType::trusting(*authorities)
                       : zu::ZuNetworking::URLSessionType::standard();
  }();
  return type;
}

std::shared_ptr<zu::ZuNetworking> make(State& shared, std::optional<std::string> authToken,
                                       std::string_view identifier) {
  return shared.networkingType(std::move(authToken), std::string(identifier));
}

}  // namespace

namespace detail {

void resetAPIState() {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  shared.appToken.reset();
  shared.networkingType = KivAPI::standardNetworkingType();
  shared.sharedPublicInstance.reset();
  shared.sharedClientInstance.reset();
}

}  // namespace detail

void KivAPI::setup(const std::string& with) {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  shared.appToken = "app-token " + with;
}

std::optional<std::string> KivAPI::_appToken() {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  return shared.appToken;
}

KivAPI::NetworkingType KivAPI::_ZuNetworkingType() {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  return shared.networkingType;
}

void KivAPI::set_ZuNetworkingType(NetworkingType type) {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  shared.networkingType = std::move(type);
}

KivAPI::NetworkingType KivAPI::standardNetworkingType() {
  return [](std::optional<std::string> authToken, std::string identifier) {
    auto networking = std::make_shared<zu::ZuNetworking>(std::move(authToken), std::move(identifier));
    networking->set_URLSessionType(serviceSessionType());
    return networking;
  };
}

std::optional<std::string> KivAPI::serviceCertificateAuthorityFile() {
  const std::string_view configured = KIV_SERVICE_CA_FILE;
  if (configured.empty()) return std::nullopt;
  if (configured.starts_with('/')) return std::string(configured);
  return zu::ZuFileManager::userDataDirectory() + "/" + std::string(configured);
}

std::shared_ptr<zu::ZuNetworking> KivAPI::_publicInstance() {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  if (!shared.sharedPublicInstance) shared.sharedPublicInstance = make(shared, "", publicInstanceIdentifier);
  return shared.sharedPublicInstance;
}

// Once made, the client instance keeps the token it was made with, whatever a later `setup` stores.
std::shared_ptr<zu::ZuNetworking> KivAPI::_clientInstance() {
  State& shared = state();
  {
    std::lock_guard lock(shared.mutex);
    if (shared.appToken) {
      if (!shared.sharedClientInstance) {
        shared.sharedClientInstance = make(shared, shared.appToken, clientInstanceIdentifier);
      }
      return shared.sharedClientInstance;
    }
  }
  return _publicInstance();
}

void KivAPI::setBackgroundCompletionHandler(std::function<void()> handler, std::string_view identifier) {
  std::shared_ptr<zu::ZuNetworking> instance;
  if (identifier == publicInstanceIdentifier) {
    instance = _publicInstance();
  } else if (identifier == clientInstanceIdentifier) {
    instance = _clientInstance();
  } else {
    return;
  }
  // The handler is stored before the session is made: a re-created session starts delivering the earlier
  // process's events at once, on its own thread, and may finish before this call returns.
  instance->setBackgroundCompletionHandler(std::move(handler));
  instance->createBackgroundURLSession();
}

bool KivAPI::isFileDownloadTaskPending(const zu::URL& url) { return _publicInstance()->isTaskPending(url); }

}  // namespace kiv
