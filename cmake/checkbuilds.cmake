# The sanitized and fuzzing builds are built to run the suite once, on the
# machine that builds them. Three things make them build in half the time
# without changing what the suite checks:
#
# - Highway's kernels for the one instruction set this machine runs them
#   with (AVX2 where it has it, else the baseline) instead of every one.
#   The others are code none of the tests here runs, and under the
#   sanitizers they are most of the build: the colour kernels alone take
#   gcc six minutes, and clang over ten for the emulated target.
# - Line tables only: enough for every sanitizer report's stack.
# - The tests, tools and bindings at -O1 (tessera_check_build_glue below):
#   the time a test takes is the library's, which keeps -O2.

function(tessera_check_build_kernels)
  add_compile_definitions(HWY_COMPILE_ONLY_STATIC=1)
  if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64" OR NOT EXISTS /proc/cpuinfo)
    return()
  endif()
  file(STRINGS /proc/cpuinfo flags REGEX "^flags" LIMIT_COUNT 1)
  # What Highway's AVX2 target asks of the processor.
  foreach(feature avx2 fma f16c bmi1 bmi2 lzcnt|abm pclmulqdq aes sse4_2)
    if(NOT flags MATCHES " (${feature})( |$)")
      message(STATUS "Kernels: this processor lacks ${feature}; the baseline target only")
      return()
    endif()
  endforeach()
  add_compile_options(-msse4.2 -mavx2 -mfma -mf16c -mbmi -mbmi2 -mlzcnt -mpclmul -maes)
  message(STATUS "Kernels: AVX2 only, as this processor runs them")
endfunction()

function(tessera_check_build_glue)
  add_compile_options(-O1)
endfunction()
