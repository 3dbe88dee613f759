# Runs cmake/check_layering.cmake in script mode over a small made-up source tree: the tree as
# written follows the order and passes; each case adds one file whose include runs against the
# order to a fresh copy of it, and the check must then fail naming that file and that include.
#   cmake -DKESTREL_LAYERING_SCRIPT=<check_layering.cmake> -DKESTREL_LAYERING_SCRATCH=<dir> -P this
cmake_minimum_required(VERSION 3.25)

foreach(var KESTREL_LAYERING_SCRIPT KESTREL_LAYERING_SCRATCH)
  if(NOT ${var})
    message(FATAL_ERROR "${var} is not set")
  endif()
endforeach()

set(base ${KESTREL_LAYERING_SCRATCH}/base)
set(case_dir ${KESTREL_LAYERING_SCRATCH}/case)
set(failures "")

function(write_file root path text)
  string(REPLACE "'" "\"" text "${text}")  # ' for " keeps the cases below readable
  file(WRITE ${root}/${path} "${text}\n")
endfunction()

# Every include the order allows, once: each folder includes the one below it, the top of
# core/sources reaches into both of its subfolders, the ledger includes its private header.
file(REMOVE_RECURSE ${base})
write_file(${base} core/model/record.hpp "#pragma once\n#include <string>")
write_file(${base} core/model/record.cpp
  "#include 'core/model/record.hpp'\n// #include 'core/ledger/store.hpp' is only a comment")
write_file(${base} core/pricing/price.hpp "#include 'core/model/record.hpp'")
write_file(${base} core/presentation/grid.hpp "#include 'core/model/record.hpp'")
write_file(${base} core/sources/reader.hpp "#include 'core/pricing/price.hpp'")
write_file(${base} core/sources/registry.cpp
  "#include 'core/sources/stores/store_reader.hpp'\n#include 'core/sources/transcripts/lines.hpp'")
write_file(${base} core/sources/stores/store_reader.hpp "#include 'core/sources/reader.hpp'")
write_file(${base} core/sources/transcripts/lines.hpp "#include 'core/sources/reader.hpp'")
write_file(${base} core/ledger/store.hpp "#include 'core/sources/stores/store_reader.hpp'")
write_file(${base} core/ledger/store_internals.hpp "#include 'core/ledger/store.hpp'")
write_file(${base} core/ledger/store.cpp "#include 'core/ledger/store_internals.hpp'")
write_file(${base} core/integrations/hub.hpp "#include 'core/ledger/store.hpp'")
write_file(${base} core/plans/plan.hpp "#include 'core/ledger/store.hpp'")
write_file(${base} core/app/app.cpp "#include 'core/integrations/hub.hpp'
#include 'core/plans/plan.hpp'\n#include 'core/presentation/grid.hpp'")
write_file(${base} cli/cli.hpp "#pragma once")
write_file(${base} cli/main.cpp "#include 'cli/cli.hpp'\n#include <core/app/app.hpp>")
write_file(${base} app/window.hpp "#include 'core/app/app.hpp'\n#include 'core/presentation/grid.hpp'")
write_file(${base} app/main.cpp "#include 'app/window.hpp'")

function(run_check root out_rc out_text)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -DKESTREL_LAYERING_ROOT=${root} -P ${KESTREL_LAYERING_SCRIPT}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  set(${out_rc} "${rc}" PARENT_SCOPE)
  set(${out_text} "${out}${err}" PARENT_SCOPE)
endfunction()

run_check(${base} rc text)
if(NOT rc EQUAL 0)
  list(APPEND failures "the tree that follows the order was refused:\n${text}")
endif()

# refused(<file> <its text> <what the message must also name>): a copy of the tree plus <file>
# must fail, and the message must name <file> and the include.
function(refused path text needle)
  file(REMOVE_RECURSE ${case_dir})
  file(COPY ${base}/ DESTINATION ${case_dir})
  write_file(${case_dir} ${path} "${text}")
  run_check(${case_dir} rc out)
  if(rc EQUAL 0)
    list(APPEND failures "${path} with ${text}: accepted")
  else()
    string(FIND "${out}" "${path}: " at_file)
    string(FIND "${out}" "${needle}" at_needle)
    if(at_file EQUAL -1 OR at_needle EQUAL -1)
      list(APPEND failures "${path} with ${text}: refused without naming it and ${needle}:\n${out}")
    endif()
  endif()
  set(failures "${failures}" PARENT_SCOPE)
endfunction()

refused(core/model/bad.hpp "#include 'core/pricing/price.hpp'" core/pricing/price.hpp)
refused(core/model/bad.cpp "  #  include <core/ledger/store.hpp>" core/ledger/store.hpp)
refused(core/pricing/bad.cpp "#include 'core/sources/reader.hpp'" core/sources/reader.hpp)
refused(core/pricing/bad.hpp "#include 'core/presentation/grid.hpp'" core/presentation/grid.hpp)
refused(core/presentation/bad.cpp "#include 'core/pricing/price.hpp'" core/pricing/price.hpp)
refused(core/sources/bad.cpp "#include 'core/ledger/store.hpp'" core/ledger/store.hpp)
refused(core/sources/stores/bad.cpp
  "#include 'core/sources/transcripts/lines.hpp'" core/sources/transcripts/lines.hpp)
refused(core/sources/transcripts/bad.hpp
  "#include 'core/sources/stores/store_reader.hpp'" core/sources/stores/store_reader.hpp)
refused(core/ledger/bad.cpp "#include 'core/integrations/hub.hpp'" core/integrations/hub.hpp)
refused(core/ledger/bad.hpp "#include 'core/presentation/grid.hpp'" core/presentation/grid.hpp)
refused(core/integrations/bad.cpp "#include 'core/plans/plan.hpp'" core/plans/plan.hpp)
refused(core/plans/bad.cpp "#include 'core/integrations/hub.hpp'" core/integrations/hub.hpp)
refused(core/integrations/bad.hpp "#include 'core/app/app.hpp'" core/app/app.hpp)
refused(core/app/bad.cpp "#include 'cli/cli.hpp'" cli/cli.hpp)
refused(core/integrations/peek.cpp
  "#include 'core/ledger/store_internals.hpp'" core/ledger/store_internals.hpp)
refused(app/bad.cpp "#include 'cli/cli.hpp'" cli/cli.hpp)
refused(core/app/bad.hpp "#include 'app/window.hpp'" app/window.hpp)
refused(cli/bad.cpp "#include 'app/window.hpp'" app/window.hpp)
refused(core/widgets/bad.hpp "#include 'core/model/record.hpp'" "core/widgets/ has no place")
refused(core/stray.hpp "#pragma once" "core/ has no place")

if(failures)
  list(LENGTH failures count)
  string(REPLACE ";" "\n" text "${failures}")
  message(FATAL_ERROR "${count} case(s) failed:\n${text}")
endif()
