/** What the bridge says of an event. */
#include "evbridge/report.h"

#include "temp_directory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace {

std::string textOf(U8_t version) {
    EmpEvLogHeader_t header{};
    header.evSource = 20;
    header.evId = 70;
    header.evIdVersion = version;
    header.evStructLength = 1;
    evbridge::Entry entry = {.image = evbridge::Bytes(sizeof(header) + 1)};
    memcpy(entry.image.data(), &header, sizeof(header));
    return evbridge::reportOf(entry).text;
}

} // namespace

TEST(Report, EventWithoutTextHasTheNameOfItsIdsVersion) {
    support::TempDirectory directory;
    support::writeFile(directory.file("site.json"), R"({"source": "volmgr", "events": [
        {"id": 70, "idVersion": 1, "name": "moved", "text": "{why}", "fields": [
            {"name": "why", "offset": 0, "width": 1, "type": "text"}]},
        {"id": 70, "idVersion": 2, "name": "gone", "text": "{why}", "fields": [
            {"name": "why", "offset": 0, "width": 1, "type": "text"}]}]})");
    setenv("EVENT_MANAGER_CATALOG", directory.path().c_str(), 1);
    EXPECT_EQ(textOf(1), "moved(70)");
    EXPECT_EQ(textOf(2), "gone(70)");
}
