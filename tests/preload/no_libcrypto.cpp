// Preloaded into kor to take libcrypto away: every dlopen of a name containing "libcrypto" fails as it does on a
// device without the library (the loader's own message, from a path that does not exist). Other libraries load.
#include <dlfcn.h>

#include <cstring>

extern "C" void* dlopen(const char* name, int flags)
{
    static auto* real = reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
    if (name && std::strstr(name, "libcrypto")) return real("/nonexistent/libcrypto.so.3", flags);
    return real(name, flags);
}
