#include "simulated_blade.h"

#include "fault/bugcheck.h"
#include "mmsg/read_ahead.h"
#include "state/control.h"
#include "store/scan.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdarg>
#include <cstring>
#include <set>
#include <sys/socket.h>

// The variables of the event manager and of the library, see CMakeLists.txt.
extern "C" {
extern char __start_emp_data[];
extern char __stop_emp_data[];
extern char __start_emp_bss[];
extern char __stop_emp_bss[];

int simulated_main(int argc, char* argv[]);
[[noreturn]] void simulated_abort();
void* simulated_malloc(size_t size);
void* simulated_calloc(size_t count, size_t size);
void simulated_free(void* block);
}

// Replaced at link time, see CMakeLists.txt.
extern EMP_SCAN_OUTCOME_e real_scan() __asm__("__real__Z19empScanEventLogFilev");
EMP_SCAN_OUTCOME_e wrapped_scan() __asm__("__wrap__Z19empScanEventLogFilev");
MPU_PARAMS_t* wrapped_params(int key) __asm__("__wrap__Z16MPU_getMpuParamsi");
[[noreturn]] void real_fault(const char* file, int line, const char* function, const char* format,
                             ...) __asm__("__real__Z8empFaultPKciS0_S0_z");
[[noreturn]] void wrapped_fault(const char* file, int line, const char* function,
                                const char* format, ...) __asm__("__wrap__Z8empFaultPKciS0_S0_z");

extern ssize_t real_receive(void* to, size_t length,
                            int flags) __asm__("__real__Z17empReceiveFromMsmPvmi");
ssize_t wrapped_receive(void* to, size_t length,
                        int flags) __asm__("__wrap__Z17empReceiveFromMsmPvmi");

namespace fuzz {

Blade* running;

namespace {

std::set<void*> blocks; ///< of the heap that the event manager holds
std::jmp_buf back;      ///< out of the event manager; nothing on its stack needs a destructor

/** Copies memory that the sanitizer has laid red zones into. */
void copyRaw(void* to, const void* from, size_t length) {
    __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(length) : : "memory");
}

/** One stretch of variables, as it is when a process begins. */
class Variables {
  public:
    Variables(char* begin, char* end) : begin_(begin), fresh_(static_cast<size_t>(end - begin)) {
        copyRaw(fresh_.data(), begin_, fresh_.size());
    }
    void reset() { copyRaw(begin_, fresh_.data(), fresh_.size()); }

  private:
    char* begin_;
    std::vector<char> fresh_;
};

/** The variables of a new process, and no heap of an earlier one. */
void beginProcess() {
    static Variables data(__start_emp_data, __stop_emp_data);
    static Variables zeroed(__start_emp_bss, __stop_emp_bss);
    data.reset();
    zeroed.reset();
    for (void* block : blocks) {
        std::free(block);
    }
    blocks.clear();
}

template <typename Field>
void setText(Field& field, const char* text) {
    std::memcpy(field, text, std::strlen(text));
}

} // namespace

Blade::Blade() : descriptors(3, Descriptor{Descriptor::STANDARD}) {
    parameters.version = MPU_PARAMS_VERSION;
    parameters.slotId = SLOT;
    setText(parameters.chassisSN, ENCLOSURE);
    setText(parameters.serialStr, BLADE);
    setText(parameters.mmsgDirectory, "/messages");
    setText(parameters.nvramDirectory, "/nvram");
}

Ending Blade::run() {
    beginProcess();
    running = this;
    char name[] = "emp";
    char key[] = "4711";
    char* arguments[] = {name, key, nullptr};
    switch (setjmp(back)) {
    case 0:
        simulated_main(2, arguments);
        return Ending::EXIT;
    case 1:
        return Ending::INPUT_OVER;
    default:
        return Ending::BUG_CHECK;
    }
}

int Blade::newDescriptor(Descriptor descriptor) {
    auto place = std::find_if(descriptors.begin(), descriptors.end(),
                              [](const Descriptor& each) { return each.kind == Descriptor::FREE; });
    if (place == descriptors.end()) {
        place = descriptors.insert(place, Descriptor{});
    }
    *place = std::move(descriptor);
    return static_cast<int>(place - descriptors.begin());
}

Blade::Descriptor* Blade::descriptor(int number) {
    if (number < 0 || static_cast<size_t>(number) >= descriptors.size() ||
        descriptors[static_cast<size_t>(number)].kind == Descriptor::FREE) {
        errno = EBADF;
        return nullptr;
    }
    return &descriptors[static_cast<size_t>(number)];
}

bool Blade::fails() {
    if (failingCall == 0 || --failingCall != 0) {
        return false;
    }
    disturbed = true;
    errno = EIO;
    return true;
}

bool Blade::somethingIsReady() {
    return !toManager.empty() || silentPasses > 0 || idle(*this);
}

/** Leaves the event manager. */
[[noreturn]] void leave(int how) {
    std::longjmp(back, how);
}

} // namespace fuzz

using fuzz::running;

EMP_SCAN_OUTCOME_e wrapped_scan() {
    EMP_SCAN_OUTCOME_e outcome = real_scan();
    if (running->scanned) {
        running->scanned();
    }
    return outcome;
}

MPU_PARAMS_t* wrapped_params(int /*key*/) {
    return &running->parameters;
}

void wrapped_fault(const char* file, int line, const char* function, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    running->bugCheck = text;
    if (running->fullReport) {
        real_fault(file, line, function, "%s", text);
    }
    fuzz::leave(2);
}

/** A header that states no length is read again for ever, and the message before it served again:
 * that is meant so. A few passes of it are enough. */
ssize_t wrapped_receive(void* to, size_t length, int flags) {
    constexpr unsigned enough = 3;
    ssize_t result = real_receive(to, length, flags);
    const auto* header = static_cast<const std::uint8_t*>(to);
    bool whole = result == static_cast<ssize_t>(length);
    if ((flags & MSG_PEEK) != 0 && whole && header[10] == 0 && header[11] == 0 &&
        ++running->emptyHeaders > enough) {
        fuzz::leave(1);
    }
    return result;
}

extern "C" {

void simulated_abort() {
    // The library's own abort, which refuses an event that no file may hold, is not meant here.
    fuzz::expect(!running->bugCheck.empty(), "abort() without a bug-check");
    fuzz::leave(2);
}

void* simulated_malloc(size_t size) {
    if (running->fails()) {
        errno = ENOMEM;
        return nullptr;
    }
    return *fuzz::blocks.insert(std::malloc(size)).first;
}

void* simulated_calloc(size_t count, size_t size) {
    void* block = simulated_malloc(count * size);
    return block == nullptr ? nullptr : std::memset(block, 0, count * size);
}

void simulated_free(void* block) {
    fuzz::expect(block == nullptr || fuzz::blocks.erase(block) == 1,
                 "free() of what is not, or no longer, the event manager's");
    std::free(block);
}
}
