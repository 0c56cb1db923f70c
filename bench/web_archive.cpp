/**
 * @file
 * Makes a large archive file as an archiver would have left it: a thousand blades that log by turns
 * over thirty days, a warning in fifty events, an error in a thousand, arrivals in order.
 *
 *   bench_web_archive FILE EVENTS
 */
#include "sqlite_store.h"

#include <cstring>
#include <ctime>
#include <iostream>

namespace {

constexpr U32_t BLADES = 1000;
constexpr S64_t DAYS = 30;
constexpr U64_t BATCH = 20'000;
constexpr std::size_t DATA_SIZE = 100;

struct Image {
    EmpEvLogHeader_t header{};
    U8_t data[DATA_SIZE]{};
};

void putText(U8_t (&field)[EMP_ID_TEXT_SIZE], const std::string& text) {
    std::memset(field, 0, sizeof(field));
    text.copy(reinterpret_cast<char*>(field), sizeof(field) - 1);
}

void fill(Image& image, U64_t number, S64_t now, U64_t events) {
    const U64_t blade = number % BLADES;
    const S64_t age =
        DAYS * 86'400 * static_cast<S64_t>(events - number) / static_cast<S64_t>(events);
    putText(image.header.evEnclosureId, "ENC-" + std::to_string(blade / 14));
    putText(image.header.evBladeId, "BLADE-" + std::to_string(blade));
    image.header.evSlotId = static_cast<U32_t>(blade % 14);
    image.header.evSequenceId = static_cast<U32_t>(number / BLADES + 1);
    image.header.evTime = static_cast<U32_t>(now - age);
    image.header.evStructLength = DATA_SIZE;
    image.header.evSource = static_cast<U8_t>(number * 7 % 33);
    image.header.evType = number % 1000 == 13 ? 3 : number % 50 == 7 ? 2 : 1;
    image.header.evCategory = 1;
    image.header.evIdVersion = 1;
    image.header.evId = static_cast<U16_t>(number * 13 % 200);
    const std::string text = "measured value " + std::to_string(number * 31 % 977);
    std::memset(image.data, 0, sizeof(image.data));
    text.copy(reinterpret_cast<char*>(image.data), sizeof(image.data));
}

void make(const std::string& path, U64_t events) {
    const auto store = evarchive::openArchive(path);
    const S64_t now = time(nullptr);
    Image image;
    std::vector<evarchive::GenerationKey> keys;
    store->begin();
    for (U64_t number = 0; number < events; ++number) {
        fill(image, number, now, events);
        if (number < BLADES) {
            const evarchive::SeriesNumber series = store->addSeries(
                {{"ENC-" + std::to_string(number / 14), "BLADE-" + std::to_string(number),
                  static_cast<U32_t>(number % 14)},
                 0});
            keys.push_back({series, 1});
            store->addGeneration(keys.back(), now);
        }
        store->addEvent(keys[number % BLADES],
                        {image.header.evSequenceId,
                         evarchive::View(reinterpret_cast<const U8_t*>(&image), sizeof(image)),
                         true, false, S64_t{image.header.evTime} + 1});
        if (number % BATCH == BATCH - 1) {
            store->commit();
            store->begin();
        }
    }
    for (const evarchive::GenerationKey& key : keys) {
        store->noteProven(key, {1, static_cast<U32_t>(events / BLADES)});
    }
    store->commit();
}

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc != 3) {
            std::cerr << "usage: bench_web_archive FILE EVENTS\n";
            return 2;
        }
        make(argv[1], std::stoull(argv[2]));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "bench_web_archive: " << error.what() << "\n";
        return 2;
    }
}
