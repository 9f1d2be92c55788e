// Objects that outlive static destruction.

#include "base/never_destroyed.h"

#include <gtest/gtest.h>

namespace NV {

namespace {

struct Counted {
    Counted(int& made, int& destroyed) : made_(made), destroyed_(destroyed) { ++made_; }
    ~Counted() { ++destroyed_; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    int& made_;
    int& destroyed_;
};

TEST(NeverDestroyed, MakesItsObjectAndDoesNotDestroyIt)
{
    int made = 0;
    int destroyed = 0;
    {
        NeverDestroyed<Counted> object(made, destroyed);
        EXPECT_EQ(1, made);
        EXPECT_EQ(&made, &object->made_);
        EXPECT_EQ(&*object, object.operator->());
    }
    EXPECT_EQ(1, made);
    EXPECT_EQ(0, destroyed);
}

}  // namespace

}  // namespace NV
