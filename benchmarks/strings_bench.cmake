# Peers: the C library, std::string, and scalar loops compiled here.
vlmcore_benchmark(strings)

# The same with the library linked in, where `--kernels=AVX2` and the like choose a slower set than the processor's best.
# Not run by `./build.sh bench`.
add_executable(strings_paths strings_bench.cpp)
vlmcore_setup(strings_paths)
target_compile_definitions(strings_paths PRIVATE VLMCORE_BENCH_PATHS)
target_include_directories(strings_paths PRIVATE ${PROJECT_SOURCE_DIR}/src/VlmCore)
target_link_libraries(strings_paths PRIVATE VlmCoreStatic benchmark::benchmark)
