#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "ZuFoundation/Data.hpp"
#include "ZuFoundation/Result.hpp"

namespace zu {

/// The 32-byte SHA-256 digest (FIPS 180-4) of `bytes`.
Data sha256(std::span<const std::uint8_t> bytes);
/// The SHA-256 digest of a text's UTF-8 bytes.
Data sha256(std::string_view text);
/**
 * The SHA-256 digest of a file's bytes, read in blocks of `blockSize` bytes: the same digest as reading the
 * whole file, in memory that does not grow with the file. Fails with the POSIX error of the open or read.
 */
Result<Data> sha256OfFile(const std::string& path);
/// Each byte as two lower-case hexadecimal digits ("%02hhx"), with no separator.
std::string hexString(std::span<const std::uint8_t> bytes);
/// The 16-byte MD5 digest (RFC 1321) of a text's UTF-8 bytes.
Data md5(std::string_view text);

/// The block size of `sha256OfFile`: small enough that a block read is still in the core's cache when it is
/// hashed (1 MiB blocks hash a third slower).
inline constexpr std::size_t fileDigestBlockSize = 1 << 16;

}  // namespace zu
