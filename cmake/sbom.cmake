# SPDX-License-Identifier: MIT
# The bill of materials, fetchrig.cdx.json in the folder of the build: what the library and the command need, in the
# versions that this build found. Entries are "name version licence".
set(needs "openssl ${OPENSSL_VERSION} Apache-2.0")
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND needs "libstdc++ ${CMAKE_CXX_COMPILER_VERSION} GPL-3.0-or-later WITH GCC-exception-3.1")
endif()
if(FETCHRIG_TOOLS)
  find_package(CLI11 QUIET)
  find_package(nlohmann_json QUIET)
  list(APPEND needs "cli11 ${CLI11_VERSION} BSD-3-Clause" "nlohmann-json ${nlohmann_json_VERSION} MIT")
endif()
foreach(need IN LISTS needs)
  string(REGEX MATCH "^([^ ]+) ([^ ]*) (.*)$" need "${need}")
  list(APPEND refs "\"${CMAKE_MATCH_1}\"")
  string(CONCAT component "\n    {\"type\": \"library\", \"bom-ref\": \"${CMAKE_MATCH_1}\", "
    "\"name\": \"${CMAKE_MATCH_1}\", \"version\": \"${CMAKE_MATCH_2}\",\n     "
    "\"licenses\": [{\"expression\": \"${CMAKE_MATCH_3}\"}]}")
  list(APPEND components "${component}")
endforeach()
list(JOIN components "," FETCHRIG_SBOM_COMPONENTS)
list(JOIN refs ", " FETCHRIG_SBOM_REFS)
configure_file(packaging/fetchrig.cdx.json.in fetchrig.cdx.json @ONLY)
