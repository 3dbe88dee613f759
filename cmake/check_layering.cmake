# Includes run one way through core/: a folder may include itself and the folders below it, never
# one above. core/CMakeLists.txt runs the check at configure time; a test runs it in script mode:
#   cmake -DKESTREL_LAYERING_ROOT=<source dir> -P cmake/check_layering.cmake
# Every violation is reported (file and include) before configuration fails.
#
# Order (each line may include those above it, not those beside it):
#   model
#   pricing                                presentation (model only)
#   sources: the top folder is shared; stores/ and transcripts/ do not include each other
#   ledger
#   integrations, plans (not each other)
#   app (all of core)
#   cli (everything);  app/ at the top, the desktop application: all of core, never cli/
# A header named *_internals.hpp belongs to its folder: no other folder includes it.

if(CMAKE_SCRIPT_MODE_FILE STREQUAL CMAKE_CURRENT_LIST_FILE)
  cmake_minimum_required(VERSION 3.25)
endif()

set(_kestrel_sources_all sources sources/stores sources/transcripts)
set(_kestrel_below_ledger model pricing ${_kestrel_sources_all})
set(_kestrel_layer_model model)
set(_kestrel_layer_pricing model pricing)
set(_kestrel_layer_presentation model presentation)
set(_kestrel_layer_sources model pricing ${_kestrel_sources_all})
set(_kestrel_layer_sources/stores model pricing sources sources/stores)
set(_kestrel_layer_sources/transcripts model pricing sources sources/transcripts)
set(_kestrel_layer_ledger ${_kestrel_below_ledger} ledger)
set(_kestrel_layer_integrations ${_kestrel_below_ledger} ledger integrations)
set(_kestrel_layer_plans ${_kestrel_below_ledger} ledger plans)
set(_kestrel_layer_app ${_kestrel_below_ledger} ledger integrations plans presentation app)
set(_kestrel_layer_cli ${_kestrel_layer_app} cli)
set(_kestrel_layer_desktop ${_kestrel_layer_app} desktop)

# The layer of a path below the source root ("core/sources/stores/x.hpp" -> sources/stores,
# "cli/x.hpp" -> cli, "app/x.hpp" -> desktop); empty for a path outside core/, cli/ and app/, "?" for a file directly in core/.
function(_kestrel_layer_of path out)
  if(path MATCHES "^cli/")
    set(layer cli)
  elseif(path MATCHES "^app/")
    set(layer desktop)
  elseif(path MATCHES "^core/sources/(stores|transcripts)/")
    set(layer "sources/${CMAKE_MATCH_1}")
  elseif(path MATCHES "^core/([^/]+)/")
    set(layer "${CMAKE_MATCH_1}")
  elseif(path MATCHES "^core/")
    set(layer "?")
  else()
    set(layer "")
  endif()
  set(${out} "${layer}" PARENT_SCOPE)
endfunction()

function(kestrel_check_layering root)
  file(GLOB_RECURSE files RELATIVE "${root}" LIST_DIRECTORIES false
    "${root}/core/*.hpp" "${root}/core/*.cpp" "${root}/core/*.h"
    "${root}/cli/*.hpp" "${root}/cli/*.cpp" "${root}/cli/*.h"
    "${root}/app/*.hpp" "${root}/app/*.cpp" "${root}/app/*.h")
  list(SORT files)
  set(problems "")
  foreach(file IN LISTS files)
    _kestrel_layer_of("${file}" layer)
    if(NOT DEFINED _kestrel_layer_${layer})
      get_filename_component(dir "${file}" DIRECTORY)
      list(APPEND problems "${file}: ${dir}/ has no place in the order of cmake/check_layering.cmake")
      continue()
    endif()
    set(allowed ${_kestrel_layer_${layer}})
    file(STRINGS "${root}/${file}" lines REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"](core|cli|app)/")
    foreach(line IN LISTS lines)
      if(NOT line MATCHES "#[ \t]*include[ \t]*[<\"]([^>\"]+)[>\"]")
        continue()
      endif()
      set(included "${CMAKE_MATCH_1}")
      _kestrel_layer_of("${included}" target)
      if(NOT target IN_LIST allowed)
        string(REPLACE ";" ", " allowed_text "${allowed}")
        list(APPEND problems
          "${file}: #include \"${included}\" (${layer} may include only ${allowed_text})")
      elseif(included MATCHES "_internals\\.hpp$")
        get_filename_component(from_dir "${file}" DIRECTORY)
        get_filename_component(to_dir "${included}" DIRECTORY)
        if(NOT from_dir STREQUAL to_dir)
          list(APPEND problems
            "${file}: #include \"${included}\" (private to ${to_dir}/)")
        endif()
      endif()
    endforeach()
  endforeach()
  if(problems)
    list(LENGTH problems count)
    string(REPLACE ";" "\n  " text "${problems}")
    message(FATAL_ERROR "${count} include(s) against the layering of core/:\n  ${text}\n")
  endif()
endfunction()

if(CMAKE_SCRIPT_MODE_FILE STREQUAL CMAKE_CURRENT_LIST_FILE)
  if(NOT KESTREL_LAYERING_ROOT)
    message(FATAL_ERROR "usage: cmake -DKESTREL_LAYERING_ROOT=<source dir> -P ${CMAKE_CURRENT_LIST_FILE}")
  endif()
  kestrel_check_layering("${KESTREL_LAYERING_ROOT}")
endif()
