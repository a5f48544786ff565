# Messages beside fmt (Debian: libfmt-dev) and snprintf.
find_package(fmt QUIET)
if(fmt_FOUND)
  vlmcore_benchmark(format fmt::fmt)
  target_compile_definitions(format_bench PRIVATE BENCH_FMT)
else()
  message(STATUS "fmt not found (Debian: libfmt-dev): format benchmark without it")
  vlmcore_benchmark(format)
endif()
