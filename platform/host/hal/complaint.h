// What the HAL writes to the log: why it refused something, where its code does not say it all.
#ifndef HAL_COMPLAINT_H
#define HAL_COMPLAINT_H

#include <cstdint>
#include <string>

namespace hal {

// Writes an error line: what is refused, the code's text, and the reason if there is one. Callers
// try again what is refused, a server 42 times: a line is written again after some minutes only,
// and so many of a code in that time.
// @return the code.
int32_t complain(const std::string& subject, int32_t code, const std::string& reason = "");

} // namespace hal

#endif
