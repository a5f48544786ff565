# Peers: the standard library's to_chars and from_chars, the C library's snprintf and strtod.
vlmcore_benchmark(numbers)
