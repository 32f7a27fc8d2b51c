// Root may write into any folder, so tests of folders the user may not change
// take the identity of "nobody" while they write. For a normal user it does
// nothing: the folder's permissions already apply.
#pragma once

#include <unistd.h>

class ActAsNobody {
public:
    ActAsNobody() : wasRoot_(geteuid() == 0) { switched_ = wasRoot_ && seteuid(65534) == 0; }
    ~ActAsNobody()
    {
        if (switched_)
            (void)seteuid(0);
    }
    ActAsNobody(const ActAsNobody &) = delete;
    ActAsNobody &operator=(const ActAsNobody &) = delete;

    // False when running as root could not be given up: the test cannot check anything.
    bool ok() const { return !wasRoot_ || switched_; }

private:
    bool wasRoot_;
    bool switched_ = false;
};
