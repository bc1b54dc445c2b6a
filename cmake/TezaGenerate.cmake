# teza_generate: runs the code generator teza-gen at build time and adds what it writes to a
# target.
#
#   teza_generate(TARGET <target> SCHEMA <file>...
#                 [OUTPUT_DIR <dir>]
#                 [NO_GLOBALS | GLOBALS_ONLY]
#                 [NO_INTERFACES])
#
# For each schema file <stem>.teza the generator writes <stem>.h and <stem>.cpp, and, once for
# all the schemas of the call, teza_globals.cpp: the definitions of
# TezaNamespaceFactory::registerDefaultTypeFactory() and TezaNS_depot::getTezaTracker() that
# the runtime calls. A program has exactly one teza_globals.cpp, so give every schema of a
# program to one call, or generate libraries with NO_GLOBALS and add the program's
# teza_globals.cpp with GLOBALS_ONLY and the same schemas. A second call on a target that
# already has its teza_globals.cpp, or that would add one beside another call's schemas, is
# refused at configure time; so is a call that would write a file another call writes.
# NO_INTERFACES leaves out the interface classes.
#
# The sources are added to <target> and the output directory (default:
# ${CMAKE_CURRENT_BINARY_DIR}/teza_gen/<target>) to its PUBLIC include directories. The target
# still links the runtime itself, e.g. target_link_libraries(<target> PRIVATE
# teza::autotezagenerator). The generated files are rebuilt whenever a schema, the generator or
# one of its templates changes.
#
# The generator is found relative to this file (../tools/teza-gen), which holds both in the
# source tree and in an installed tree; set TEZA_GEN_DIR before including this file to use
# another copy. It needs Python 3 with Jinja2 (Debian: python3 and python3-jinja2).

include_guard(GLOBAL)

if(NOT DEFINED TEZA_GEN_DIR)
  set(TEZA_GEN_DIR "${CMAKE_CURRENT_LIST_DIR}/../tools/teza-gen")
endif()
get_filename_component(_teza_gen_dir "${TEZA_GEN_DIR}" ABSOLUTE)
file(GLOB _teza_gen_files
  "${_teza_gen_dir}/teza-gen"
  "${_teza_gen_dir}/tezagen/*.py"
  "${_teza_gen_dir}/templates/*.j2")
# Kept as global properties so that a call from any directory of the project finds them.
set_property(GLOBAL PROPERTY TEZA_GEN_DIR "${_teza_gen_dir}")
set_property(GLOBAL PROPERTY TEZA_GEN_FILES "${_teza_gen_files}")

find_package(Python3 COMPONENTS Interpreter QUIET)

function(_teza_generate_check_python)
  get_property(checked GLOBAL PROPERTY TEZA_GEN_PYTHON_CHECKED)
  if(checked)
    return()
  endif()
  if(NOT Python3_Interpreter_FOUND)
    message(FATAL_ERROR "teza_generate: teza-gen needs Python 3 (Debian: python3)")
  endif()
  execute_process(COMMAND "${Python3_EXECUTABLE}" -c "import jinja2"
                  RESULT_VARIABLE result OUTPUT_QUIET ERROR_QUIET)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR
      "teza_generate: teza-gen needs Jinja2 for ${Python3_EXECUTABLE} (Debian: python3-jinja2)")
  endif()
  set_property(GLOBAL PROPERTY TEZA_GEN_PYTHON_CHECKED TRUE)
endfunction()

# Refuses, at configure time, a call that cannot work beside the earlier calls. A target's
# teza_globals.cpp must reach every schema of the target, so a target takes either one call
# that writes it, or any number of NO_GLOBALS calls with at most one GLOBALS_ONLY call. And no
# two calls may write the same file, which the build tool would only report as a clash of
# rules.
function(_teza_generate_check_calls target no_globals globals_only schemas outputs)
  if(globals_only)
    set(mode GLOBALS_ONLY)
  elseif(no_globals)
    set(mode NO_GLOBALS)
  else()
    set(mode ALL)
  endif()
  get_property(earlier_modes TARGET ${target} PROPERTY TEZA_GENERATE_MODES)
  get_property(earlier_schemas TARGET ${target} PROPERTY TEZA_GENERATE_SCHEMAS)
  if(earlier_modes)
    if(mode STREQUAL "ALL" OR "ALL" IN_LIST earlier_modes
       OR (mode STREQUAL "GLOBALS_ONLY" AND "GLOBALS_ONLY" IN_LIST earlier_modes))
      string(REPLACE ";" ", " earlier "${earlier_schemas}")
      string(REPLACE ";" ", " these "${schemas}")
      message(FATAL_ERROR
        "teza_generate: target '${target}' already has code generated from ${earlier}; "
        "give every schema of a target to one call (here also ${these}), since the "
        "target's teza_globals.cpp must reach them all, or generate the schemas with "
        "NO_GLOBALS and add one GLOBALS_ONLY call with all of them")
    endif()
  endif()
  set_property(TARGET ${target} APPEND PROPERTY TEZA_GENERATE_MODES ${mode})
  set_property(TARGET ${target} APPEND PROPERTY TEZA_GENERATE_SCHEMAS ${schemas})

  get_property(claimed GLOBAL PROPERTY TEZA_GENERATE_OUTPUTS)
  foreach(output IN LISTS outputs)
    if(output IN_LIST claimed)
      message(FATAL_ERROR
        "teza_generate: ${output} is written by an earlier call already; give every schema "
        "of a target to one call, and each target its own OUTPUT_DIR")
    endif()
  endforeach()
  set_property(GLOBAL APPEND PROPERTY TEZA_GENERATE_OUTPUTS ${outputs})
endfunction()

function(teza_generate)
  cmake_parse_arguments(ARG "NO_GLOBALS;GLOBALS_ONLY;NO_INTERFACES" "TARGET;OUTPUT_DIR" "SCHEMA"
                        ${ARGN})
  if(ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "teza_generate: unexpected arguments: ${ARG_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT ARG_TARGET OR NOT TARGET "${ARG_TARGET}")
    message(FATAL_ERROR "teza_generate: TARGET must name an existing target")
  endif()
  if(NOT ARG_SCHEMA)
    message(FATAL_ERROR "teza_generate: SCHEMA needs at least one schema file")
  endif()
  if(ARG_NO_GLOBALS AND ARG_GLOBALS_ONLY)
    message(FATAL_ERROR "teza_generate: NO_GLOBALS and GLOBALS_ONLY exclude each other")
  endif()
  _teza_generate_check_python()

  if(NOT ARG_OUTPUT_DIR)
    set(ARG_OUTPUT_DIR "${CMAKE_CURRENT_BINARY_DIR}/teza_gen/${ARG_TARGET}")
  endif()
  get_filename_component(output_dir "${ARG_OUTPUT_DIR}" ABSOLUTE
                         BASE_DIR "${CMAKE_CURRENT_BINARY_DIR}")

  set(schemas "")
  set(outputs "")
  foreach(schema IN LISTS ARG_SCHEMA)
    get_filename_component(schema "${schema}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
    list(APPEND schemas "${schema}")
    # The generator names its files after the schema's name up to its first '.'.
    get_filename_component(stem "${schema}" NAME_WE)
    if(NOT ARG_GLOBALS_ONLY)
      list(APPEND outputs "${output_dir}/${stem}.h" "${output_dir}/${stem}.cpp")
    endif()
  endforeach()

  set(options "")
  if(ARG_NO_GLOBALS)
    list(APPEND options --no-globals)
  else()
    list(APPEND outputs "${output_dir}/teza_globals.cpp")
  endif()
  if(ARG_GLOBALS_ONLY)
    list(APPEND options --globals-only)
  endif()
  if(ARG_NO_INTERFACES)
    list(APPEND options --no-interfaces)
  endif()
  _teza_generate_check_calls("${ARG_TARGET}" "${ARG_NO_GLOBALS}" "${ARG_GLOBALS_ONLY}"
                             "${ARG_SCHEMA}" "${outputs}")

  get_property(gen_dir GLOBAL PROPERTY TEZA_GEN_DIR)
  get_property(gen_files GLOBAL PROPERTY TEZA_GEN_FILES)
  string(REPLACE ";" ", " names "${ARG_SCHEMA}")
  add_custom_command(
    OUTPUT ${outputs}
    COMMAND "${Python3_EXECUTABLE}" "${gen_dir}/teza-gen" --output-dir "${output_dir}"
            ${options} ${schemas}
    DEPENDS ${schemas} ${gen_files}
    COMMENT "Generating C++ for ${ARG_TARGET} from ${names}"
    VERBATIM)
  target_sources(${ARG_TARGET} PRIVATE ${outputs})
  target_include_directories(${ARG_TARGET} PUBLIC "$<BUILD_INTERFACE:${output_dir}>")
endfunction()
