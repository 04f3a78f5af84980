// The "--name value" options of the load helpers. Every option takes a
// value; a missing value or an unknown name is reported, not guessed.
#ifndef TWAMP_BENCH_OPTION_MAP_H
#define TWAMP_BENCH_OPTION_MAP_H

#include <cstdint>
#include <map>
#include <set>
#include <string>

class OptionMap {
  public:
    // Reads argv; false with error set when an option is unknown or has no value.
    bool parse(int argc, char** argv, const std::set<std::string>& known, std::string& error);

    // The text of an option, or fallback when it was not given.
    std::string text(const std::string& name, const std::string& fallback) const;
    // The unsigned number of an option, or fallback; false when it is not a number.
    bool number(const std::string& name, uint64_t fallback, uint64_t& value) const;

  private:
    std::map<std::string, std::string> values;
};

#endif  // TWAMP_BENCH_OPTION_MAP_H
