# How targets are compiled and linked here.

include(CheckCXXSourceCompiles)
include(CheckCXXSymbolExists)
include(CMakePushCheckState)

# Older compilers lack some of the C++20 that the schemas take, and say so in pages of templates.
if((CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12)
    OR (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 15))
  message(FATAL_ERROR "The libraries need GCC 12, Clang 15, or a later one.")
endif()

set(KEL_WARNINGS -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
# x86-64-v2 has the instructions that codec/korva_vector.hpp takes, and every 64-bit ARM has its own.
# ARM's code has the branch protection that the linker insists on, below. The compiler is asked which
# it is, since not every toolchain file names the processor.
cmake_push_check_state(RESET)  # of what a project that adds this one has set for its own checks
check_cxx_symbol_exists(__aarch64__ "" KEL_FOR_ARM)
# By the linker that shared libraries get, which need not be that of the checks' programs.
separate_arguments(CMAKE_REQUIRED_LINK_OPTIONS NATIVE_COMMAND "${CMAKE_SHARED_LINKER_FLAGS}")
list(APPEND CMAKE_REQUIRED_LINK_OPTIONS LINKER:-z,undefs)
check_cxx_source_compiles("int main() {}" KEL_LINKER_KNOWS_UNDEFS)
cmake_pop_check_state()
if(KEL_FOR_ARM)
  set(KEL_ARCHITECTURE -mbranch-protection=standard)
else()
  set(KEL_ARCHITECTURE -march=x86-64-v2)
endif()

# Loops begin with a cache line: a short one whose end comes to lie just across a line takes up to
# two thirds longer. All together they cost some 400 bytes.
set(KEL_LOOPS -falign-loops=64)

# Everything of ours: strict warnings, which are errors in the presets (another compiler, or the same
# one at another level, has others), and includes by path from the top folder.
function(kel_target target)
  target_compile_options(${target} PRIVATE ${KEL_WARNINGS} ${KEL_ARCHITECTURE})
  target_include_directories(${target} PRIVATE "${PROJECT_SOURCE_DIR}")
  target_link_libraries(${target} PRIVATE kel_headers)
endfunction()

# Objects of the product. No exceptions, no RTTI, no guards, and none of the standard library's own
# assertions, which some distributions and compilers turn on: nothing of the C++ run time is needed.
# Compiled file by file and optimised alike in every preset but the one that measures coverage, so
# that the tests run the very code that ships; all else is optimised little, since building it takes
# longer than running it.
function(kel_add_objects target)
  add_library(${target} OBJECT ${ARGN})
  kel_target(${target})
  target_compile_options(${target} PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics
                         -U_GLIBCXX_ASSERTIONS -D_GLIBCXX_NO_ASSERTIONS
                         ${KEL_LOOPS} $<$<NOT:$<CONFIG:Debug>>:-O3>)
  set_target_properties(${target} PROPERTIES UNITY_BUILD OFF)
  # Without the static analyser, which takes longer than all other checks; scripts/lint has it.
  if(KEL_CLANG_TIDY)
    set_target_properties(${target} PROPERTIES
      CXX_CLANG_TIDY "clang-tidy-16;--checks=-clang-analyzer-*")
  endif()
endfunction()

# A shared library of the product. Without the toolchain's start files it has no initialiser and no
# finaliser, so that nothing runs when a host loads it; on ARM it also keeps every piece of code
# branch-protected, which -z force-bti would otherwise find wanting in the start files.
function(kel_add_library target)
  cmake_parse_arguments(arg "" "VERSION_SCRIPT" "OBJECTS" ${ARGN})
  set(script "${PROJECT_SOURCE_DIR}/${arg_VERSION_SCRIPT}")
  add_library(${target} SHARED)
  target_link_libraries(${target} PRIVATE ${arg_OBJECTS} PUBLIC kel_headers)
  # The library consists of objects alone, so its language has to be said.
  set_target_properties(${target} PROPERTIES
    LINKER_LANGUAGE CXX VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS "${script}")
  target_link_options(${target} PRIVATE
    -nostdlib "LINKER:--version-script=${script}"
    LINKER:-z,now LINKER:-z,relro LINKER:-z,noexecstack LINKER:--hash-style=gnu)
  # Before glibc 2.34, dlsym is in a library of its own. What the host defines stays undefined, even
  # where a toolchain's flags forbid that; they come before the libraries, and the last word counts.
  # All linkers but gold know -z undefs. The other way is for gold alone: mold, where undefined names
  # had been forbidden, would take their addresses for null.
  if(KEL_LINKER_KNOWS_UNDEFS)
    set(undefined -Wl,-z,undefs)
  else()
    set(undefined -Wl,--unresolved-symbols=ignore-all)
  endif()
  target_link_libraries(${target} PRIVATE c ${CMAKE_DL_LIBS} ${undefined})
  if(KEL_FOR_ARM)
    target_link_options(${target} PRIVATE LINKER:-z,force-bti LINKER:--fatal-warnings)
  endif()
endfunction()
