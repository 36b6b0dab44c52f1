// A line on standard error that tells how far a series is, when that is a terminal.
#ifndef DMCAT_PROGRESS_H
#define DMCAT_PROGRESS_H

#include <string>

namespace dmcat {

class Progress {
public:
    Progress();
    void show(const std::string& text);
    void clear(); // before other output

private:
    bool terminal_;
    bool shown_ = false;
};

} // namespace dmcat

#endif
