// Objects that outlive static destruction.

#include "base/never_destroyed.h"

#include <gtest/gtest.h>

namespace NV {

namespace {

struct Counted {
    Counted(int& madeCount, int& destroyedCount) : made(madeCount), destroyed(destroyedCount)
    {
        ++made;
    }
    ~Counted() { ++destroyed; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    int& made;
    int& destroyed;
};

TEST(NeverDestroyed, MakesItsObjectAndDoesNotDestroyIt)
{
    int made = 0;
    int destroyed = 0;
    {
        NeverDestroyed<Counted> object(made, destroyed);
        EXPECT_EQ(1, made);
        EXPECT_EQ(&made, &object->made);
        EXPECT_EQ(&*object, object.operator->());
    }
    EXPECT_EQ(1, made);
    EXPECT_EQ(0, destroyed);
}

}  // namespace

}  // namespace NV
