# Every dependency is a Debian package installed by scripts/setup.sh.
find_package(Threads REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(CURL REQUIRED)
find_package(nlohmann_json 3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)

# Reference service (tools/kiv-service)
find_package(SQLite3 REQUIRED)
find_package(CLI11 CONFIG REQUIRED)
pkg_check_modules(CPPHTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(CAIRO REQUIRED IMPORTED_TARGET cairo-pdf)
