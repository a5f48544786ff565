# Files and folders beside the standard library; nothing to find.
vlmcore_benchmark(files)
