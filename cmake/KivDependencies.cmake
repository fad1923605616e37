# The core's dependencies, every one a Debian package installed by scripts/setup.sh. Optional parts (the
# service, the tests, the benchmarks) find theirs in their own CMakeLists.
find_package(Threads REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(CURL REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
