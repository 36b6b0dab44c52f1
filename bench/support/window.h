// How many requests of a batch are under way.
#pragma once

namespace bench {

class Window {
public:
    // @param depth the most that are under way at a time.
    explicit Window(int depth) : depth_(depth) {}

    void begin(int operations) {
        left_ = operations;
        to_send_ = operations;
        under_way_ = 0;
    }
    // @return true when one more is to be sent.
    bool opens() {
        if (to_send_ == 0 || under_way_ == depth_)
            return false;
        --to_send_;
        ++under_way_;
        return true;
    }
    // @return true when that was the last answer.
    bool answered() {
        --under_way_;
        return --left_ == 0;
    }

private:
    const int depth_;
    int left_ = 0;
    int to_send_ = 0;
    int under_way_ = 0;
};

} // namespace bench
