# Checks a shipped library's dynamic symbols and SONAME against its public header.
#   cmake -DLIB=<library> -DHEADER=<public header> -DMODE=core|common|host [-DMAJOR=<n>]
#         -P CheckExports.cmake
# Every defined dynamic symbol must be declared in the header (C functions) or be one of the
# listed execution facilities (common library only), and carry the library's version node
# (or, for a function added later, the node listed for it);
# every function the header declares (and each required C++ symbol) must be exported; the
# SONAME must be libNAME.so.MAJOR (the given major version, when there is one).
cmake_minimum_required(VERSION 3.25)  # empty list elements are kept
find_program(NM nm REQUIRED)
find_program(READELF readelf REQUIRED)

if(MODE STREQUAL "core")
  set(api_macro HXF_CORE_API)
  set(c_node HXF_CORE_0)
  set(nodes HXF_CORE_0)
elseif(MODE STREQUAL "common")
  set(api_macro HXF_COMMON_API)
  set(c_node HXF_COMMON_0)
  set(nodes HXF_COMMON_0 HXF_COMMON_TPL_0 HXF_COMMON_0_1)
  # C functions added after the first release, each under the node that brought it.
  set(c_later "hxf_error_name=HXF_COMMON_0_1")
  set(cxx_node HXF_COMMON_TPL_0)
  set(cxx_expected
    "HXFramework::TPL::CDirectInvoker::GetInstance()"
    "HXFramework::TPL::CDirectInvoker::Invoke(std::function<void ()>&&)"
    "HXFramework::TPL::CThreadPoolInvoker::GetInstance()"
    "HXFramework::TPL::CThreadPoolInvoker::Invoke(std::function<void ()>&&)"
    "HXFramework::TPL::CThreadPoolInvokerImpl::CThreadPoolInvokerImpl(unsigned long)"
    "HXFramework::TPL::CThreadPoolInvokerImpl::~CThreadPoolInvokerImpl()"
    "HXFramework::TPL::CThreadPoolInvokerImpl::Invoke(std::function<void ()>&&)"
    "HXFramework::TPL::CThreadPoolInvokerImpl::ParkedCount()"
    "HXFramework::TPL::ITimer::Create(std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> > const&)")
  # The timer interface's type data: exported when the compiler emits it (an optimised build
  # may not need its vtable at all).
  set(cxx_optional
    "typeinfo for HXFramework::TPL::ITimer"
    "typeinfo name for HXFramework::TPL::ITimer"
    "vtable for HXFramework::TPL::ITimer")
elseif(MODE STREQUAL "host")
  set(api_macro HXF_HOST_API)
  set(c_node HXF_HOST_PLATFORM_0)
  set(nodes HXF_HOST_PLATFORM_0)
else()
  message(FATAL_ERROR "MODE must be core, common or host")
endif()

set(errors "")

# SONAME: libNAME.so.MAJOR, whatever file name the library was reached by.
execute_process(COMMAND ${READELF} -d ${LIB} OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "readelf failed on ${LIB}")
endif()
if(NOT DEFINED MAJOR)
  set(MAJOR "[0-9]+")
endif()
if(NOT dynamic MATCHES "Library soname: \\[lib[a-z-]+\\.so\\.${MAJOR}\\]")
  list(APPEND errors "no SONAME libNAME.so.${MAJOR}")
endif()

execute_process(COMMAND ${NM} -D --defined-only ${LIB} OUTPUT_VARIABLE raw RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
execute_process(COMMAND ${NM} -DC --defined-only ${LIB} OUTPUT_VARIABLE demangled)

file(READ ${HEADER} header_text)
string(REGEX MATCHALL "${api_macro} [^;(]*[ *\n]([A-Za-z_0-9]+)\\(" declarations "${header_text}")
set(declared "")
foreach(declaration IN LISTS declarations)
  string(REGEX REPLACE ".*[ *\n]([A-Za-z_0-9]+)\\($" "\\1" name "${declaration}")
  list(APPEND declared ${name})
endforeach()
list(REMOVE_DUPLICATES declared)

string(REPLACE "\n" ";" raw_lines "${raw}")
string(REPLACE "\n" ";" demangled_lines "${demangled}")
set(c_exports "")
set(cxx_exports "")
set(found_nodes "")
list(LENGTH raw_lines n)
math(EXPR last "${n} - 1")
foreach(i RANGE ${last})
  list(GET raw_lines ${i} line)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^[0-9a-f]* *([A-Za-z]) ([^@]*)(@@?)?(.*)$" "\\1;\\2;\\4" parts "${line}")
  list(GET parts 0 kind)
  list(GET parts 1 name)
  list(GET parts 2 node)
  if(kind STREQUAL "A")  # a version node
    list(APPEND found_nodes ${name})
    continue()
  endif()
  if(name MATCHES "^_Z")
    list(GET demangled_lines ${i} pretty)
    string(REGEX REPLACE "^[0-9a-f]* *[A-Za-z] (.*)@@.*$" "\\1" pretty "${pretty}")
    list(FIND cxx_expected "${pretty}" known)
    list(FIND cxx_optional "${pretty}" optional)
    if(known EQUAL -1 AND optional EQUAL -1)
      list(APPEND errors "unexpected C++ export: ${pretty}")
    elseif(NOT node STREQUAL cxx_node)
      list(APPEND errors "${pretty} has version '${node}', expected ${cxx_node}")
    endif()
    list(APPEND cxx_exports "${pretty}")
  else()
    list(APPEND c_exports ${name})
    list(FIND declared ${name} found)
    if(found EQUAL -1)
      list(APPEND errors "exported but not declared in the header: ${name}")
    endif()
    set(expected_node ${c_node})
    foreach(later IN LISTS c_later)
      if(later MATCHES "^${name}=(.*)$")
        set(expected_node ${CMAKE_MATCH_1})
      endif()
    endforeach()
    if(NOT node STREQUAL expected_node)
      list(APPEND errors "${name} has version '${node}', expected ${expected_node}")
    endif()
  endif()
endforeach()

foreach(name IN LISTS declared)
  list(FIND c_exports ${name} found)
  if(found EQUAL -1)
    list(APPEND errors "declared but not exported: ${name}")
  endif()
endforeach()
foreach(pretty IN LISTS cxx_expected)
  list(FIND cxx_exports "${pretty}" found)
  if(found EQUAL -1)
    list(APPEND errors "missing C++ export: ${pretty}")
  endif()
endforeach()
list(SORT found_nodes)
list(SORT nodes)
if(NOT found_nodes STREQUAL nodes)
  list(APPEND errors "version nodes '${found_nodes}', expected '${nodes}'")
endif()

if(errors)
  string(REPLACE ";" "\n  " text "${errors}")
  message(FATAL_ERROR "export check failed for ${LIB}:\n  ${text}")
endif()
list(LENGTH c_exports count)
message(STATUS "${LIB}: ${count} C exports, all declared and versioned (${nodes})")
