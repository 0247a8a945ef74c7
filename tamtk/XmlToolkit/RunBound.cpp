#include "XmlToolkit/RunBound.h"

#include <dlfcn.h>
#include <libxml/globals.h>
#include <libxml/xmlmemory.h>
#include <libxslt/xsltutils.h>
#include <malloc.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tamxml {
namespace internal {
namespace {

thread_local RunBound* t_run = nullptr;

// The clock is read at every this many trace points: a template call costs
// a few of them, so a stopped run overshoots its time by microseconds.
const unsigned _ticksPerClockRead = 32;

xmlGenericErrorFunc _previousDebug = nullptr;
void* _previousDebugContext = nullptr;

xmlFreeFunc _previousFree = nullptr;
xmlMallocFunc _previousMalloc = nullptr;
xmlReallocFunc _previousRealloc = nullptr;
xmlStrdupFunc _previousStrdup = nullptr;

void _traceHook(void* context, const char* format, ...) {
    if (RunBound* run = t_run) {
        run->tick();
        return;
    }
    if (_previousDebug != nullptr) {
        char text[1024];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        _previousDebug(_previousDebugContext, "%s", text);
    }
    (void)context;
}

// The sizes counted are malloc's own (usable size), so that a block freed
// in the run takes back exactly what it added.
void* _malloc(std::size_t size) {
    RunBound* run = t_run;
    if (run == nullptr) {
        return _previousMalloc(size);
    }
    if (!run->admit(size)) {
        return nullptr;
    }
    void* block = _previousMalloc(size);
    if (block == nullptr) {
        run->release(size);
        return nullptr;
    }
    run->add(malloc_usable_size(block) - size);
    return block;
}

void* _realloc(void* block, std::size_t size) {
    RunBound* run = t_run;
    if (run == nullptr) {
        return _previousRealloc(block, size);
    }
    const std::size_t before = block != nullptr ? malloc_usable_size(block) : 0;
    const std::size_t growth = size > before ? size - before : 0;
    if (!run->admit(growth)) {
        return nullptr;
    }
    void* moved = _previousRealloc(block, size);
    if (moved == nullptr) {
        run->release(growth);
        return nullptr;
    }
    run->release(before + growth);
    run->add(malloc_usable_size(moved));
    return moved;
}

void _free(void* block) {
    if (RunBound* run = t_run) {
        if (block != nullptr) {
            run->release(malloc_usable_size(block));
        }
    }
    _previousFree(block);
}

// The counting relies on malloc_usable_size, which only malloc's own blocks
// answer: when the host put an allocator of its own under libxml2, memory
// is left uncounted rather than misread.
bool _libxmlUsesMalloc() {
    xmlFreeFunc freeFunc = nullptr;
    xmlMallocFunc mallocFunc = nullptr;
    xmlReallocFunc reallocFunc = nullptr;
    xmlStrdupFunc strdupFunc = nullptr;
    if (xmlMemGet(&freeFunc, &mallocFunc, &reallocFunc, &strdupFunc) != 0) {
        return false;
    }
    _previousFree = freeFunc;
    _previousMalloc = mallocFunc;
    _previousRealloc = reallocFunc;
    _previousStrdup = strdupFunc;
    return freeFunc == &std::free && mallocFunc == &std::malloc && reallocFunc == &std::realloc &&
           xmlMallocAtomic == &std::malloc;
}

}  // namespace

void installRunHooks() {
    // The hooks live in this library: it must stay loaded as long as libxml2
    // and libxslt can call them, even when whoever loaded it lets it go.
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&installRunHooks), &self) != 0 &&
        self.dli_fname != nullptr) {
        dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }
    _previousDebug = xsltGenericDebug;
    _previousDebugContext = xsltGenericDebugContext;
    xsltSetGenericDebugFunc(nullptr, &_traceHook);
    if (_libxmlUsesMalloc()) {
        xmlMemSetup(&_free, &_malloc, &_realloc, _previousStrdup);
    }
}

RunBound::RunBound(xsltTransformContextPtr context, std::chrono::milliseconds time,
                   std::size_t memory)
    : context_(context),
      deadline_(std::chrono::steady_clock::now() + time),
      time_(time),
      memory_(memory),
      outer_(t_run) {
    t_run = this;
}

RunBound::~RunBound() {
    t_run = outer_;
}

void RunBound::tick() {
    if (++ticks_ % _ticksPerClockRead == 0 && reason_.empty() &&
        std::chrono::steady_clock::now() > deadline_) {
        char text[96];
        std::snprintf(text, sizeof text, "it ran longer than its bound of %.3f s",
                      static_cast<double>(time_.count()) / 1000.0);
        stop(text);
    }
}

bool RunBound::admit(std::size_t more) {
    tick();
    if (more > memory_ || held_ > memory_ - more) {
        if (reason_.empty()) {
            stop("it needed more than its bound of " + std::to_string(memory_) +
                 " bytes of memory");
        }
        return false;
    }
    held_ += more;
    return true;
}

void RunBound::add(std::size_t more) {
    held_ += more;
}

void RunBound::release(std::size_t less) {
    held_ = less < held_ ? held_ - less : 0;
}

void RunBound::stop(const std::string& reason) {
    // Both are read by the thread of the run only, which is this one.
    reason_ = reason;
    context_->state = XSLT_STATE_STOPPED;
    if (context_->xpathCtxt != nullptr) {
        // An expression being evaluated gives up at its next step.
        context_->xpathCtxt->opLimit = 1;
    }
}

}  // namespace internal
}  // namespace Tamxml
