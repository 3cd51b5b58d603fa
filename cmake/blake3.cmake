# BLAKE3 from the official C sources that Debian ships with its Rust crate, built as a static
# library with the x86-64 assembly kernels and runtime CPU dispatch.
file(GLOB _b3_candidates LIST_DIRECTORIES true /usr/share/cargo/registry/blake3-*/c)
list(SORT _b3_candidates COMPARE NATURAL)
list(POP_BACK _b3_candidates QUILL_BLAKE3_DIR)
if(NOT EXISTS "${QUILL_BLAKE3_DIR}/blake3.h")
  message(FATAL_ERROR "BLAKE3 C sources not found; install librust-blake3-dev (scripts/install-deps.sh)")
endif()

set(_b3 ${QUILL_BLAKE3_DIR})
add_library(quill_blake3 STATIC
  ${_b3}/blake3.c ${_b3}/blake3_dispatch.c ${_b3}/blake3_portable.c)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
  target_sources(quill_blake3 PRIVATE
    ${_b3}/blake3_sse2_x86-64_unix.S ${_b3}/blake3_sse41_x86-64_unix.S
    ${_b3}/blake3_avx2_x86-64_unix.S ${_b3}/blake3_avx512_x86-64_unix.S)
else()
  target_compile_definitions(quill_blake3 PRIVATE BLAKE3_NO_SSE2 BLAKE3_NO_SSE41 BLAKE3_NO_AVX2
                             BLAKE3_NO_AVX512)
endif()
target_include_directories(quill_blake3 SYSTEM PUBLIC ${_b3})
set_target_properties(quill_blake3 PROPERTIES POSITION_INDEPENDENT_CODE ON)
