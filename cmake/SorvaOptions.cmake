# Compiler settings shared by every SORVA target.

# Warnings as errors on our own code only (never on Qt's or PipeWire's headers,
# which are included as system headers).
function(sorva_our_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
endfunction()

# Signal-processing code: no fused multiply-add contraction, so that results
# are bit-identical whatever instruction set the compiler targets.
function(sorva_dsp_code target)
  target_compile_options(${target} PRIVATE -ffp-contract=off)
endfunction()

if(SORVA_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(SORVA_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT SORVA_SANITIZE STREQUAL "")
  message(FATAL_ERROR "SORVA_SANITIZE must be empty, 'address' or 'thread'")
endif()
if(NOT SORVA_SANITIZE STREQUAL "")
  # GCC 12's flow analysis gives false "maybe uninitialized" warnings on
  # sanitizer-instrumented standard-library code (<regex>, <optional>).
  add_compile_options(-Wno-maybe-uninitialized)
endif()

# Tests and the DSP reference loops compare floats bit for bit.
add_compile_options(-ffp-contract=off)
