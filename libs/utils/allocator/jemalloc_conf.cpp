// jemalloc's settings for each program of the build that it serves: it reads this symbol of the
// program when it starts. One arena, as the threads that allocate most (the I/O threads reading
// packets) are not the ones that free (the writer and the thread that releases written packets):
// per-thread arenas held more memory for no gain. Pages freed are given back by jemalloc's own
// thread half a second later, without waiting for the next allocation; thread caches stay small.
extern "C" {
const char* malloc_conf =
    "background_thread:true,narenas:1,dirty_decay_ms:500,muzzy_decay_ms:0,tcache_max:4096";
}
