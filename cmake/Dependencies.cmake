# Third-party libraries other than Net-SNMP and the test frameworks, each declared here so
# that a missing one stops configure with the Debian package to install
# (scripts/install-deps installs them all).

# velmar_require_headers(TARGET HEADER PACKAGE): an imported header-only library.
function(velmar_require_headers target header package)
  string(MAKE_C_IDENTIFIER "VELMAR_${target}_INCLUDE_DIR" var)
  find_path(${var} ${header})
  if(NOT ${var})
    message(FATAL_ERROR "${header} not found: install Debian's ${package} (scripts/install-deps)")
  endif()
  add_library(${target} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${target} SYSTEM INTERFACE ${${var}})
endfunction()

# The state file reader's JSON parser.
velmar_require_headers(Velmar::RapidJSON rapidjson/reader.h rapidjson-dev)
# The state file source's per-daemon digests (used header-only).
velmar_require_headers(Velmar::xxHash xxhash.h libxxhash-dev)

# The agent's command line.
find_package(CLI11 CONFIG QUIET)
if(NOT CLI11_FOUND)
  message(FATAL_ERROR "CLI11 not found: install Debian's libcli11-dev (scripts/install-deps)")
endif()

# The systemd source's bus (sd-bus); no other D-Bus library.
pkg_check_modules(VELMAR_LIBSYSTEMD QUIET IMPORTED_TARGET GLOBAL libsystemd)
if(NOT VELMAR_LIBSYSTEMD_FOUND)
  message(FATAL_ERROR "libsystemd not found: install Debian's libsystemd-dev (scripts/install-deps)")
endif()
add_library(Velmar::libsystemd ALIAS PkgConfig::VELMAR_LIBSYSTEMD)

# The supervisord source: HTTP over a Unix socket or TCP (libcurl), XML (expat).
pkg_check_modules(VELMAR_LIBCURL QUIET IMPORTED_TARGET GLOBAL libcurl)
if(NOT VELMAR_LIBCURL_FOUND)
  message(FATAL_ERROR "libcurl not found: install Debian's libcurl4-openssl-dev (scripts/install-deps)")
endif()
add_library(Velmar::libcurl ALIAS PkgConfig::VELMAR_LIBCURL)
pkg_check_modules(VELMAR_EXPAT QUIET IMPORTED_TARGET GLOBAL expat)
if(NOT VELMAR_EXPAT_FOUND)
  message(FATAL_ERROR "expat not found: install Debian's libexpat1-dev (scripts/install-deps)")
endif()
add_library(Velmar::expat ALIAS PkgConfig::VELMAR_EXPAT)
