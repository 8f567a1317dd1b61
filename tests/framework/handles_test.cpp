#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "framework/AutoHandles.h"
#include "framework/CUxError.h"

namespace {

bool fdOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(AutoHandle, EmptyZeroAndReset) {
    EXPECT_FALSE(auto_handle().is_valid());
    // Descriptor 0 is valid and is closed by reset(): park stdin meanwhile.
    int savedStdin = dup(0);
    ASSERT_GE(savedStdin, 0);
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(dup2(pipeFds[0], 0), 0);
    {
        auto_handle h(0);
        EXPECT_TRUE(h.is_valid());
        h.reset();
        EXPECT_FALSE(fdOpen(0));
        EXPECT_EQ(h.get(), -1);
    }
    dup2(savedStdin, 0);
    for (int fd : {savedStdin, pipeFds[0], pipeFds[1]}) close(fd);

    int fd = open("/dev/null", O_RDONLY);
    {
        auto_handle h(fd);
        h.reset(fd);  // the same descriptor stays open
        EXPECT_TRUE(fdOpen(fd));
        int other = open("/dev/null", O_RDONLY);
        h.reset(other);
        EXPECT_FALSE(fdOpen(fd));
        EXPECT_TRUE(fdOpen(other));
        h.__set(-1);  // forgets without closing
        EXPECT_TRUE(fdOpen(other));
        close(other);
    }
}

TEST(AutoPtrArray, ResetFreesOnlyOthers) {
    char* a = new char[16];
    auto_ptr_array<char> p(a);
    p.reset(a);  // same pointer: kept, not freed (ASan would flag a use after free below)
    a[0] = 'x';
    EXPECT_EQ(p.get()[0], 'x');
    p.reset(new char[8]);  // frees a (LeakSanitizer would flag it otherwise)
}

TEST(CUxErrorInline, CodesAndSharing) {
    EXPECT_TRUE(!CUxError().IsError() && !CUxError(5).IsError() && CUxError(-1).IsError());
    CUxError a(-7);
    a.Push(FXCodeLocation("f", "void g()", 1));
    CUxError b(a);
    b.Push(FXCodeLocation("f", "void h()", 2));
    // Copies share the details: the push through b shows through a.
    EXPECT_EQ(a.AsString(), b.AsString());
    EXPECT_NE(a.AsString().find("void h()"), std::string::npos);
}

}  // namespace
