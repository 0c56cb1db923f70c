#include "lib_test_support.h"
#include "mpu_gbl.h"

#include <cerrno>

TEST(Bugcheck, PrintsTheLastErrorThenTheText) {
    ChildEnd end = runInChild([] {
        errno = EPERM;
        MPU_BUGCHECK(3, "the text");
    });
    EXPECT_TRUE(end.exitedWith(3)) << end.status;
    EXPECT_EQ(end.errors, "MPU_BUGCHECK() encountered: Operation not permitted\n"
                          ": the text\n");
}

TEST(Bugcheck, ParentSeesTheLow8BitsOfTheStatus) {
    EXPECT_TRUE(runInChild([] { MPU_BUGCHECK(MPU_E_EXIT_CODE_ERROR, ""); }).exitedWith(0));
    EXPECT_TRUE(
        runInChild([] { MPU_BUGCHECK(MPU_E_EXIT_CODE_SEMA_VALUE_ERROR, ""); }).exitedWith(0x0C));
}

TEST(Bugcheck, OutputIsFlushed) {
    EXPECT_EQ(runInChild([] {
                  printf("before");
                  MPU_BUGCHECK(1, "x");
              }).output,
              "before");
}

TEST(Bugcheck, StatusesHaveTheirValues) {
    EXPECT_EQ(MPU_E_EXIT_CODE_OK, 0);
    const int inOrder[] = {
        MPU_E_EXIT_CODE_ERROR,
        MPU_E_EXIT_CODE_NULL_POINTER,
        MPU_E_EXIT_CODE_GETTIME_ERROR,
        MPU_E_EXIT_CODE_SETTIME_ERROR,
        MPU_E_EXIT_CODE_MUTEX_INIT_ERROR,
        MPU_E_EXIT_CODE_MUTEX_DONE_ERROR,
        MPU_E_EXIT_CODE_MUTEX_GET_ERROR,
        MPU_E_EXIT_CODE_MUTEX_UNLOCK_ERROR,
        MPU_E_EXIT_CODE_SEMA_INIT_ERROR,
        MPU_E_EXIT_CODE_SEMA_DONE_ERROR,
        MPU_E_EXIT_CODE_SEMA_WAIT_ERROR,
        MPU_E_EXIT_CODE_SEMA_POST_ERROR,
        MPU_E_EXIT_CODE_SEMA_VALUE_ERROR,
    };
    int expected = 0x40000000;
    for (int status : inOrder) {
        EXPECT_EQ(status, expected++);
    }
}
