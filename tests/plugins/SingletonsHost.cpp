// A host that does not link the bus: loads the library named on its command line and prints in
// which files the two singletons lie.
#include <cstdio>
#include <initializer_list>

#include <dlfcn.h>

int main(int, char** argv)
{
    void* const library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    for (const char* name : {"theCenter", "thePool"}) {
        void* const accessor = library ? dlsym(library, name) : nullptr;
        Dl_info info;
        if (!accessor || !dladdr(reinterpret_cast<void* (*)()>(accessor)(), &info)) {
            std::fprintf(stderr, "%s\n", dlerror());
            return 1;
        }
        std::puts(info.dli_fname);
    }
    return 0;
}
