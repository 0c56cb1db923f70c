#include "mpu_gbl.h"

#include <cstdlib>

namespace {

MPU_SPINLOCK_t spinlock = {1};

MPU_LIST_LINK_t* linkOf(void* element) {
    return static_cast<MPU_LIST_LINK_t*>(element);
}

bool isAlone(const void* element) {
    return static_cast<const MPU_LIST_LINK_t*>(element)->flink == element;
}

void linkBetween(MPU_LIST_LINK_t* before, MPU_LIST_LINK_t* element, MPU_LIST_LINK_t* behind) {
    element->flink = behind;
    element->blink = before;
    before->flink = element;
    behind->blink = element;
}

/** Ends the process because of an element that is still on a list. */
[[noreturn]] void failOrphanCheck(const char* text) {
    perror("Linux Error: ");
    printf("%s", text);
    exit(MPU_E_EXIT_CODE_ERROR);
}

/** Links an orphan behind the head. @return false, with nothing done, when it is none */
bool insertFirst(void* head, void* element) {
    if (!isAlone(element)) {
        return false;
    }
    linkBetween(linkOf(head), linkOf(element), linkOf(head)->flink);
    return true;
}

/** Links an orphan before the head. @return false, with nothing done, when it is none */
bool insertLast(void* head, void* element) {
    if (!isAlone(element)) {
        return false;
    }
    linkBetween(linkOf(head)->blink, linkOf(element), linkOf(head));
    return true;
}

/** Holds the lock of all lists for the length of one operation. */
class ListsLocked_t {
  public:
    ListsLocked_t() { mpuSpinLock_Get(&spinlock); }
    ~ListsLocked_t() { mpuSpinLock_Release(&spinlock); }
    ListsLocked_t(const ListsLocked_t&) = delete;
    ListsLocked_t& operator=(const ListsLocked_t&) = delete;
};

} // namespace

void MPU_init_listhead(void* head) {
    linkOf(head)->flink = linkOf(head);
    linkOf(head)->blink = linkOf(head);
}

// KEEP: the four texts about orphans differ in capitals and blanks.

void MPU_insert_on_list_head(void* head, void* element) {
    if (!insertFirst(head, element)) {
        failOrphanCheck("Listhead is not orphanized");
    }
}

void MPU_insert_on_list_tail(void* head, void* element) {
    if (!insertLast(head, element)) {
        failOrphanCheck("Listhead is Not Orphanized");
    }
}

void* MPU_remove_from_list(void* element) {
    MPU_LIST_LINK_t* link = linkOf(element);
    link->blink->flink = link->flink;
    link->flink->blink = link->blink;
    MPU_init_listhead(link);
    return element;
}

void* MPU_remove_from_list_head(void* head) {
    return isAlone(head) ? nullptr : MPU_remove_from_list(linkOf(head)->flink);
}

void* MPU_remove_from_list_tail(void* head) {
    return isAlone(head) ? nullptr : MPU_remove_from_list(linkOf(head)->blink);
}

bool MPU_list_mt(const void* head) {
    return isAlone(head);
}

void MPU_lzero(void* ptr, U32_t count) {
    memset(ptr, 0, size_t{count} * sizeof(U32_t));
}

void MPU_init_listhead_safe(void* head) {
    ListsLocked_t locked;
    MPU_init_listhead(head);
}

// The lock is given back before a failed check is reported.

void MPU_insert_on_list_head_safe(void* head, void* element) {
    bool isOrphan = [&] {
        ListsLocked_t locked;
        return insertFirst(head, element);
    }();
    if (!isOrphan) {
        failOrphanCheck("Listhead is not Orphanized");
    }
}

void MPU_insert_on_list_tail_safe(void* head, void* element) {
    bool isOrphan = [&] {
        ListsLocked_t locked;
        return insertLast(head, element);
    }();
    if (!isOrphan) {
        failOrphanCheck(" Listhead is not Orphanized");
    }
}

void* MPU_remove_from_list_safe(void* element) {
    ListsLocked_t locked;
    return MPU_remove_from_list(element);
}

void* MPU_remove_from_list_head_safe(void* head) {
    ListsLocked_t locked;
    return MPU_remove_from_list_head(head);
}

void* MPU_remove_from_list_tail_safe(void* head) {
    ListsLocked_t locked;
    return MPU_remove_from_list_tail(head);
}

bool MPU_list_mt_safe(const void* head) {
    ListsLocked_t locked;
    return MPU_list_mt(head);
}
