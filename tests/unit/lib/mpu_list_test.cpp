#include "lib_test_support.h"
#include "mpu_gbl.h"

#include <cerrno>
#include <thread>
#include <vector>

namespace {

struct Element {
    MPU_LIST_LINK_t link;
    int number;
};

/** One of the two families of operations. */
struct Operations {
    void (*init)(void*);
    void (*insertHead)(void*, void*);
    void (*insertTail)(void*, void*);
    void* (*remove)(void*);
    void* (*removeHead)(void*);
    void* (*removeTail)(void*);
    bool (*isEmpty)(const void*);
    const char* headText;
    const char* tailText;
};

const Operations plain = {
    MPU_init_listhead,    MPU_insert_on_list_head,      MPU_insert_on_list_tail,
    MPU_remove_from_list, MPU_remove_from_list_head,    MPU_remove_from_list_tail,
    MPU_list_mt,          "Listhead is not orphanized", "Listhead is Not Orphanized"};
const Operations safe = {
    MPU_init_listhead_safe,    MPU_insert_on_list_head_safe,   MPU_insert_on_list_tail_safe,
    MPU_remove_from_list_safe, MPU_remove_from_list_head_safe, MPU_remove_from_list_tail_safe,
    MPU_list_mt_safe,          "Listhead is not Orphanized",   " Listhead is not Orphanized"};

/** The family's name in the tests' names. */
void PrintTo(const Operations* operations, std::ostream* to) {
    *to << (operations == &safe ? "Safe" : "Plain");
}

class List : public testing::TestWithParam<const Operations*> {
  protected:
    List() {
        list->init(&head);
        for (Element& element : elements) {
            list->init(&element);
            element.number = static_cast<int>(&element - elements);
        }
    }
    /** The numbers along flink; the way back along blink must be the same. */
    std::vector<int> order() {
        std::vector<int> forwards;
        std::vector<int> backwards;
        for (auto* at = head.link.flink; at != &head.link; at = at->flink) {
            forwards.push_back(reinterpret_cast<Element*>(at)->number);
        }
        for (auto* at = head.link.blink; at != &head.link; at = at->blink) {
            backwards.insert(backwards.begin(), reinterpret_cast<Element*>(at)->number);
        }
        EXPECT_EQ(forwards, backwards);
        return forwards;
    }
    bool isOrphan(const Element& element) {
        return element.link.flink == &element.link && element.link.blink == &element.link;
    }
    void expectOrphanFailure(void (*insert)(void*, void*), const char* text) {
        list->insertHead(&head, &elements[0]);
        ChildEnd end = runInChild([&] {
            atexit([] {
                // Hangs unless the lock has been given back.
                Element other;
                MPU_init_listhead_safe(&other);
            });
            alarm(20);
            errno = EPERM;
            insert(&head, &elements[0]);
        });
        EXPECT_TRUE(end.exitedWith(0)) << end.status; // the low 8 bits of 0x40000000
        EXPECT_EQ(end.output, text);
        EXPECT_EQ(end.errors, "Linux Error: : Operation not permitted\n");
    }

    const Operations* list = GetParam();
    Element head;
    Element elements[4];
};

} // namespace

TEST_P(List, FreshHeadIsEmptyAndPointsToItself) {
    EXPECT_TRUE(list->isEmpty(&head));
    EXPECT_TRUE(isOrphan(head));
}

TEST_P(List, HeadInsertsInFront) {
    list->insertHead(&head, &elements[0]);
    list->insertHead(&head, &elements[1]);
    list->insertHead(&head, &elements[2]);
    EXPECT_EQ(order(), (std::vector<int>{2, 1, 0}));
    EXPECT_FALSE(list->isEmpty(&head));
}

TEST_P(List, TailInsertsBehind) {
    list->insertTail(&head, &elements[0]);
    list->insertTail(&head, &elements[1]);
    list->insertTail(&head, &elements[2]);
    EXPECT_EQ(order(), (std::vector<int>{0, 1, 2}));
}

TEST_P(List, RemovalMakesAnOrphanAndReturnsIt) {
    for (Element& element : elements) {
        list->insertTail(&head, &element);
    }
    EXPECT_EQ(list->remove(&elements[1]), &elements[1]);
    EXPECT_TRUE(isOrphan(elements[1]));
    EXPECT_EQ(order(), (std::vector<int>{0, 2, 3}));
}

TEST_P(List, HeadAndTailAreRemovedFromTheirEnds) {
    for (Element& element : elements) {
        list->insertTail(&head, &element);
    }
    EXPECT_EQ(list->removeHead(&head), &elements[0]);
    EXPECT_EQ(list->removeTail(&head), &elements[3]);
    EXPECT_TRUE(isOrphan(elements[0]));
    EXPECT_TRUE(isOrphan(elements[3]));
    EXPECT_EQ(order(), (std::vector<int>{1, 2}));
}

TEST_P(List, LastElementLeavesAnEmptyList) {
    list->insertHead(&head, &elements[0]);
    EXPECT_EQ(list->removeTail(&head), &elements[0]);
    EXPECT_TRUE(list->isEmpty(&head));
    EXPECT_TRUE(isOrphan(head));
}

TEST_P(List, RemovalFromAnEmptyListGivesNullAndChangesNothing) {
    EXPECT_EQ(list->removeHead(&head), nullptr);
    EXPECT_EQ(list->removeTail(&head), nullptr);
    EXPECT_TRUE(isOrphan(head));
}

TEST_P(List, RemovalOfAnOrphanLeavesIt) {
    EXPECT_EQ(list->remove(&elements[0]), &elements[0]);
    EXPECT_TRUE(isOrphan(elements[0]));
}

TEST_P(List, RemovedElementCanBeInsertedAgain) {
    list->insertHead(&head, &elements[0]);
    list->remove(&elements[0]);
    list->insertTail(&head, &elements[0]);
    EXPECT_EQ(order(), std::vector<int>{0});
}

TEST_P(List, ElementStillOnAListAtTheHeadEndsTheProcess) {
    expectOrphanFailure(list->insertHead, list->headText);
}

TEST_P(List, ElementStillOnAListAtTheTailEndsTheProcess) {
    expectOrphanFailure(list->insertTail, list->tailText);
}

INSTANTIATE_TEST_SUITE_P(Each, List, testing::Values(&plain, &safe));

TEST(ListLock, SafeOperationsOfManyThreadsDoNotMix) {
    constexpr int rounds = 5000;
    Element heads[2];
    MPU_init_listhead(&heads[0]);
    MPU_init_listhead(&heads[1]);
    Element elements[8];
    for (Element& element : elements) {
        MPU_init_listhead(&element);
        MPU_insert_on_list_tail(&heads[0], &element);
    }
    auto shuffle = [&heads](int from) {
        for (int i = 0; i < rounds; i++) {
            void* element = MPU_remove_from_list_head_safe(&heads[from]);
            if (element != nullptr) {
                MPU_insert_on_list_tail_safe(&heads[1 - from], element);
            }
        }
    };
    std::thread there(shuffle, 0);
    std::thread back(shuffle, 1);
    std::thread alsoThere(shuffle, 0);
    there.join();
    back.join();
    alsoThere.join();
    int count = 0;
    for (Element& head : heads) {
        while (MPU_remove_from_list_head(&head) != nullptr) {
            count++;
        }
    }
    EXPECT_EQ(count, 8);
}

TEST(Lzero, ClearsWordsAndNothingElse) {
    U32_t words[4] = {~0U, ~0U, ~0U, ~0U};
    MPU_lzero(words + 1, 2);
    EXPECT_EQ(words[0], ~0U);
    EXPECT_EQ(words[1], 0U);
    EXPECT_EQ(words[2], 0U);
    EXPECT_EQ(words[3], ~0U);
    MPU_lzero(words, 0);
    EXPECT_EQ(words[0], ~0U);
}
