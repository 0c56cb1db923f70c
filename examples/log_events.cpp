// Logs numbered events of the volume manager (endpoint 20) and says how many are in the log.
// Usage: log_events KEY COUNT
#include <mpu/event.h>

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "Usage: log_events KEY COUNT\n");
        return 2;
    }
    mpu::EventLog log(static_cast<int>(std::strtol(argv[1], nullptr, 0)), 20);
    if (!log) {
        std::perror("log_events: cannot open the event log");
        return 2;
    }
    int count = std::atoi(argv[2]);
    int inFiles = 0;
    for (int number = 1; number <= count; ++number) {
        std::string text = "volume " + std::to_string(number) + " is online";
        int status =
            log.log({MPU_E_EVENT_INFORMATION, MPU_E_EVENT_VOLUME, 1, 40, text.data(), text.size()});
        inFiles += status == MPU_E_EVENT_IN_FILE ? 1 : 0;
        if (status == MPU_E_EVENT_FAILED) {
            std::perror("log_events: cannot log an event");
        }
    }
    switch (log.close()) {
    case MPU_E_EVENT_SENT:
        std::printf("%d sent and confirmed, %d in files\n", count - inFiles, inFiles);
        return 0;
    case MPU_E_EVENT_IN_FILE:
        std::printf("the event manager is away: some of %d are in files\n", count);
        return 0;
    default:
        std::perror("log_events: an event is lost");
        return 2;
    }
}
