// Preloaded into a game, says when that shows its first frame: makes the file that the environment variable
// TAVRIN_FIRST_FRAME names when the game first hands a picture to SDL, or swaps the buffers of OpenGL. Of one
// that is there already the times are set. TAVRIN_FRAME_NUMBER says which picture counts, 1 by itself: a game
// may show that it loads before it shows anything else.

#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void frameShown() {
    static std::atomic<int> nLeft = [] {
        const char* number = std::getenv("TAVRIN_FRAME_NUMBER");
        return number ? std::atoi(number) : 1;
    }();
    if (nLeft.fetch_sub(1) != 1) return;
    const char* file = std::getenv("TAVRIN_FIRST_FRAME");
    if (!file) return;
    const int fd = open(file, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    futimens(fd, nullptr);
    close(fd);
}

template<class Function>
Function* original(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

void SDL_RenderPresent(void* renderer) {
    static auto* call = original<void(void*)>("SDL_RenderPresent");
    call(renderer);
    frameShown();
}

int SDL_UpdateWindowSurface(void* window) {
    static auto* call = original<int(void*)>("SDL_UpdateWindowSurface");
    const int result = call(window);
    frameShown();
    return result;
}

void SDL_GL_SwapWindow(void* window) {
    static auto* call = original<void(void*)>("SDL_GL_SwapWindow");
    call(window);
    frameShown();
}

} // extern "C"
