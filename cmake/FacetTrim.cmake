# Build settings shared by every target. They are applied per target, never
# globally, so that nothing here can reach the exact predicates by accident:
# the predicates add their own floating-point settings on top (kernels/).

set(FT_SANITIZE_FLAGS "")
if(FT_SANITIZE STREQUAL "asan-ubsan")
  set(FT_SANITIZE_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(FT_SANITIZE STREQUAL "tsan")
  set(FT_SANITIZE_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT FT_SANITIZE STREQUAL "")
  message(FATAL_ERROR "FT_SANITIZE must be empty, asan-ubsan or tsan")
endif()

# Link-time optimisation for GCC release builds: the engine's hot paths call
# small record accessors across files, which only the link can inline. The
# product libraries carry both their intermediate code and plain objects, so
# the programs link with it and the tests link the plain objects, at no extra
# link time. Checking builds (allocation faults, sanitizers) stay without.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_BUILD_TYPE STREQUAL "Release" AND FT_SANITIZE STREQUAL ""
   AND NOT FT_ALLOC_FAULTS)
  option(FT_LTO "Link the programs with link-time optimisation" ON)
else()
  option(FT_LTO "Link the programs with link-time optimisation" OFF)
endif()

# Warnings, sanitizers and the allocation counter, for product and test targets alike.
function(ft_common target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow ${FT_SANITIZE_FLAGS})
  target_link_options(${target} PRIVATE ${FT_SANITIZE_FLAGS})
  if(FT_ALLOC_FAULTS)
    target_compile_definitions(${target} PRIVATE FT_ALLOC_FAULTS)
  endif()
endfunction()

# A product library or program: the common settings, no exceptions, no RTTI,
# and includes rooted at the repository so that headers read "stl/stl.h".
function(ft_product target)
  ft_common(${target})
  target_compile_options(${target} PRIVATE -fno-exceptions -fno-rtti)
  get_target_property(type ${target} TYPE)
  if(FT_LTO)
    target_compile_options(${target} PRIVATE -flto=auto -ffat-lto-objects)
    if(type STREQUAL "EXECUTABLE")
      target_link_options(${target} PRIVATE -flto=auto)
    endif()
  endif()
  if(type STREQUAL "STATIC_LIBRARY")
    target_include_directories(${target} PUBLIC ${PROJECT_SOURCE_DIR})
  else()
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
  endif()
endfunction()
