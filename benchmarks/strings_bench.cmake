# Peers: the C library, std::string, and scalar loops compiled here.
vlmcore_benchmark(strings)
