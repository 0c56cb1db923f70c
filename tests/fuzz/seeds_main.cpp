/**
 * A target without libFuzzer: over its seeds, over the inputs that once were findings, and over
 * some mutations of both.
 *
 *   TARGET [REGRESSIONS]     runs all of them; REGRESSIONS is a directory that need not be there
 *   TARGET --write DIRECTORY writes the seeds into files
 */
#include "fuzz.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <unistd.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

constexpr int MUTATIONS = 6; ///< of each seed
constexpr char FAILED_INPUT[] = "failed-input";

fuzz::Bytes current;
std::minstd_rand randomNumber(20061122);

std::size_t below(std::size_t bound) {
    return bound == 0 ? 0 : randomNumber() % bound;
}

/** Leaves the input in a file for whoever looks into it; only calls that a handler may make. */
void keepInput() {
    int fd = open(FAILED_INPUT, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    ssize_t written = write(fd, current.data(), current.size());
    close(fd);
    constexpr char text[] = "The input is in the file failed-input.\n";
    written += write(STDERR_FILENO, text, sizeof(text) - 1);
    static_cast<void>(written);
}

void onAbort(int signal) {
    keepInput();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void mutate(fuzz::Bytes& bytes) {
    std::size_t at = below(bytes.size());
    auto place = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    switch (bytes.empty() ? 3 : below(5)) {
    case 0:
        bytes[at] = static_cast<std::uint8_t>(randomNumber());
        break;
    case 1:
        bytes[at] = static_cast<std::uint8_t>(bytes[at] ^ 1U << below(8));
        break;
    case 2:
        bytes.erase(place, place + static_cast<std::ptrdiff_t>(
                                       1 + below(std::min<std::size_t>(8, bytes.size() - at))));
        break;
    case 3:
        bytes.insert(place, 1 + below(8), static_cast<std::uint8_t>(randomNumber()));
        break;
    default: {
        std::size_t length = std::min<std::size_t>(1 + below(16), bytes.size() - at);
        fuzz::Bytes piece(place, place + static_cast<std::ptrdiff_t>(length));
        auto to = static_cast<std::ptrdiff_t>(below(bytes.size()));
        bytes.insert(bytes.begin() + to, piece.begin(), piece.end());
        break;
    }
    }
}

void run(const fuzz::Bytes& bytes) {
    // A copy of exactly its size, so that a read behind its end is noticed.
    current = fuzz::Bytes(bytes);
    current.shrink_to_fit();
    LLVMFuzzerTestOneInput(current.data(), current.size());
}

std::vector<fuzz::Bytes> filesOf(const char* directory) {
    std::vector<std::filesystem::path> paths;
    if (std::filesystem::is_directory(directory)) {
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            paths.push_back(entry.path());
        }
    }
    std::sort(paths.begin(), paths.end());
    std::vector<fuzz::Bytes> all;
    for (const auto& path : paths) {
        std::ifstream file(path, std::ios::binary);
        all.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return all;
}

int writeSeeds(const std::string& directory) {
    std::filesystem::create_directories(directory);
    int number = 0;
    for (const fuzz::Bytes& seed : fuzz::seeds()) {
        std::ofstream file(directory + "/seed-" + std::to_string(number++), std::ios::binary);
        file.write(reinterpret_cast<const char*>(seed.data()),
                   static_cast<std::streamsize>(seed.size()));
        file.close();
        if (!file) {
            std::fprintf(stderr, "cannot write seeds into %s\n", directory.c_str());
            return 1;
        }
    }
    return 0;
}

} // namespace

int main(int argc, char* argv[]) {
    if (argc == 3 && std::strcmp(argv[1], "--write") == 0) {
        return writeSeeds(argv[2]);
    }
#ifdef __SANITIZE_ADDRESS__
    __sanitizer_set_death_callback(keepInput);
#endif
    std::signal(SIGABRT, onAbort);
    std::vector<fuzz::Bytes> inputs = fuzz::seeds();
    fuzz::expect(!inputs.empty(), "a target without seeds");
    if (argc == 2) {
        std::vector<fuzz::Bytes> more = filesOf(argv[1]);
        inputs.insert(inputs.end(), more.begin(), more.end());
    }
    for (fuzz::Bytes& input : inputs) {
        run(input);
        for (int i = 0; i < MUTATIONS; i++) {
            fuzz::Bytes mutated = input;
            for (std::size_t acts = 1 + below(4); acts > 0; acts--) {
                mutate(mutated);
            }
            run(mutated);
        }
    }
    std::printf("%zu inputs, %d mutations of each\n", inputs.size(), MUTATIONS);
    return 0;
}
