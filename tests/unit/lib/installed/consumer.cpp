#include <altEventLog.h>
#include <mpu_gbl.h>
#include <version.h>

int main() {
    MPU_LIST_LINK_t head;
    MPU_init_listhead(&head);
    printf("%08X %d %s\n", static_cast<unsigned>(computeCRC32("123456789", 9)),
           MPU_list_mt(&head) ? 1 : 0, VersionFullString());
    return MPU_getMpuParams(-1) == nullptr ? 0 : 1;
}
