# What the library links. Each is a Debian package: see packages.txt.
find_package(PkgConfig REQUIRED)
find_package(CURL 7.85 REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(spdlog REQUIRED)
pkg_check_modules(PCRE2 REQUIRED IMPORTED_TARGET libpcre2-8)
