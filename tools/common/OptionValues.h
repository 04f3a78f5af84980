// What the tools' command lines share: an option's value from the next
// argument, a number of seconds, and the service name to talk to.
#ifndef TWAMP_OPTION_VALUES_H
#define TWAMP_OPTION_VALUES_H

#include <cstddef>
#include <string>
#include <vector>

// Takes the value of the option at index from the next argument and moves
// index onto it; false with "OPTION needs a value" when there is none.
bool takeOptionValue(const std::vector<std::string>& arguments, std::size_t& index,
                     std::string& value, std::string& error);

// Reads a number of seconds in (0, maximum], as strtod reads a number
// (fractions such as 0.5 or .5 included) but without leading blanks; false
// with "OPTION: 'TEXT' is not a number of seconds in (0, MAXIMUM]" otherwise.
bool parseSecondsOption(const std::string& option, const std::string& text, double maximum,
                        double& seconds, std::string& error);

// The service named by TWAMP_SERVICE when it is set and not empty, else "twamp".
std::string defaultServiceName();

#endif  // TWAMP_OPTION_VALUES_H
