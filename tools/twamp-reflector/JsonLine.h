// One JSON object on one line, built field by field in the order given.
// Only what the ground truth needs: numbers, booleans, null and strings.
#ifndef TWAMP_REFLECTOR_JSON_LINE_H
#define TWAMP_REFLECTOR_JSON_LINE_H

#include <cstdint>
#include <string>

class JsonLine {
  public:
    JsonLine& add(const char* key, const std::string& value);
    JsonLine& add(const char* key, const char* value);
    JsonLine& add(const char* key, uint64_t value);
    JsonLine& add(const char* key, int64_t value);
    JsonLine& add(const char* key, uint32_t value);
    JsonLine& add(const char* key, int value);
    JsonLine& add(const char* key, bool value);
    // A finite number, shortest form that reads back within 15 digits.
    JsonLine& addNumber(const char* key, double value);
    // Nanoseconds written as microseconds, with up to three decimals.
    JsonLine& addMicroseconds(const char* key, int64_t nanoseconds);
    JsonLine& addNull(const char* key);

    // The object, without a line end.
    std::string text() const { return body_ + "}"; }

  private:
    JsonLine& addRaw(const char* key, const std::string& rawValue);

    std::string body_ = "{";
};

#endif  // TWAMP_REFLECTOR_JSON_LINE_H
