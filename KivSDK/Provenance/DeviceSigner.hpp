#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

namespace kiv {

/**
 * The key that signs this device's file statements: Ed25519 (RFC 8032). `DeviceKey` keeps one in a file; a
 * host with a hardware-backed key implements this interface and hands it to `KivProvenance::setDeviceSigner`.
 *
 * @par Thread Safety
 * Implementations must allow `publicKey` and `sign` from any thread, concurrently.
 */
class DeviceSigner {
 public:
  virtual ~DeviceSigner() = default;

  /// The 32 raw bytes of the Ed25519 public key.
  virtual zu::Data publicKey() const = 0;
  /// The 64-byte Ed25519 signature of `message`, or why there is none (a locked key, a missing token).
  virtual zu::Result<zu::Data> sign(std::span<const std::uint8_t> message) const = 0;

  /// The key's id: the lower-case hex SHA-256 of `publicKey()`.
  std::string keyId() const;
};

/**
 * An Ed25519 key pair kept as a PKCS#8 PEM file, readable by the user alone (mode 0600, in a folder of mode
 * 0700). `at` makes the key the first time it is asked for; a file that is there but is no Ed25519 private
 * key is an error, never replaced.
 *
 * @par Thread Safety
 * Immutable once made. Threads and processes that make the same key at once all end with the one key that
 * reached the file first.
 */
class DeviceKey final : public DeviceSigner {
 public:
  /// The key of this installation: "Provenance/device-key.pem" in the application data folder.
  static std::string installationKeyPath();
  /// The key in the file at `path`, made there first when there is no file.
  static zu::Result<std::shared_ptr<DeviceKey>> at(const std::string& path);

  ~DeviceKey() override;
  DeviceKey(const DeviceKey&) = delete;
  DeviceKey& operator=(const DeviceKey&) = delete;

  zu::Data publicKey() const override;
  zu::Result<zu::Data> sign(std::span<const std::uint8_t> message) const override;

 private:
  struct Key;
  explicit DeviceKey(std::unique_ptr<Key> key);

  std::unique_ptr<Key> key_;
};

}  // namespace kiv
