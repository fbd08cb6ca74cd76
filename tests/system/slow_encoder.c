/* Preloaded into a program: x264 takes a twelfth of a second more for each picture. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <unistd.h>

int x264_encoder_encode(void *encoder, void **units, int *count, void *in, void *out) {
    static int (*next)(void *, void **, int *, void *, void *);
    if (next == NULL) {
        void *library = dlopen("libx264.so.164", RTLD_LAZY | RTLD_NOLOAD);
        next = dlsym(library, "x264_encoder_encode");
    }
    usleep(83000);
    return next(encoder, units, count, in, out);
}
