// Records that cross the boundary, constants, and the vocabulary that every unit shares.
#include "../support/manager_fixture.h"

namespace velmora::test {
namespace {

class Records : public ManagerTest
{
};

TEST_F(Records, ErrorCodesHaveTheirValues)
{
    const int codes[] = {ENOERR,     EINVAOPT,    EOUTOFRANGE, EWRONGADDR, EINVASEGSIZE, EOUTOFFIXED, EOUTOFFLOAT, EINVASEGTYPE,
                         ENOSEGLIST, ENOMCT,      EERR,        ENOSEGBLOCK, ENOSEGBLK,   ENOSIZE,     EASSERT,     EINITSEM,
                         EFREESEM,   EPSEM,       EVSEM,       EOPEN,      ECLOSE,       ENULL,       ESEGMENT,    EINVAARG};
    for (int i = 0; i < 24; ++i)
        EXPECT_EQ(codes[i], i);
}

} // namespace
} // namespace velmora::test
