#include "loomy/bundle/Bundle.h"

#include "BundleTestUtil.h"

using Loomy::Bundle;

TEST(Bundle, StampWritesLittleEndianHeaderAndDetachesFromCopies)
{
    Bundle bundle;
    bundle.data().append("abcdefgh", 8);
    const Bundle handedOut = bundle;
    bundle.stamp(0x01020304u, 7, 0xa0b0c0d0u);
    EXPECT_EQ(hex(bundle.data()), hex(unhex("08000000 04030201 07000000 d0c0b0a0") + "abcdefgh"));
    EXPECT_EQ(hex(handedOut.data()), hex(QByteArray(16, '\0') + "abcdefgh"));
}

// Bundles from a connection are taken as they come; a header cut short must not be read past.
TEST(Bundle, HeaderWordsOfShortArrayReadZero)
{
    const Bundle bundle(unhex("01000000 02000000 0300"));
    EXPECT_EQ((std::vector<quint32>{bundle.bodySize(), bundle.messageType(), bundle.bundleId(), bundle.ackBundleId()}),
              (std::vector<quint32>{1, 2, 0, 0}));
}
