/*
 * Logs an event of the environment process (endpoint 26) and says where it has gone.
 * Usage: log_event KEY TEXT
 */
#include <mpu/event.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static MPU_Event_t fanStopped(const char* text) {
    MPU_Event_t event;
    memset(&event, 0, sizeof(event));
    event.type = MPU_E_EVENT_ERROR;
    event.category = MPU_E_EVENT_ENVIRONMENTAL;
    event.idVersion = 1;
    event.id = 8;
    event.data = text;
    event.length = strlen(text);
    return event;
}

int main(int argc, char** argv) {
    MPU_EventLog_t* log;
    MPU_Event_t event;
    int logged, confirmed;

    if (argc != 3) {
        fprintf(stderr, "Usage: log_event KEY TEXT\n");
        return 2;
    }
    log = MPU_openEventLog((int)strtol(argv[1], NULL, 0), 26, 2000);
    if (log == NULL) {
        perror("log_event: cannot open the event log");
        return 2;
    }
    event = fanStopped(argv[2]);
    logged = MPU_logEvent(log, &event);
    if (logged == MPU_E_EVENT_FAILED) {
        perror("log_event: cannot log the event");
    }
    confirmed = MPU_closeEventLog(log);
    if (logged == MPU_E_EVENT_FAILED || confirmed == MPU_E_EVENT_FAILED) {
        return 2;
    }
    puts(logged == MPU_E_EVENT_SENT && confirmed == MPU_E_EVENT_SENT
             ? "in the log"
             : "in a file, until the event manager starts");
    return 0;
}
