# Call stacks beside the capture that the system itself offers.
vlmcore_benchmark(debug)
