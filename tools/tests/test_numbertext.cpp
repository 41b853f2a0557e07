// The tool's number reading against strtod, the C library's own, on random
// and hostile texts: every text read as a number gives strtod's double bit for
// bit, and every text refused is one strtod refuses too or one the tool
// refuses on purpose (hexadecimal, NaN, beyond the range of a double).
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "numbertext.h"

namespace vorelstat {
namespace {

bool SameBits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

bool IsHexadecimal(const std::string& text) {
  const std::size_t digits = text[0] == '-' || text[0] == '+' ? 1 : 0;
  return text.size() > digits + 1 && text[digits] == '0'
         && (text[digits + 1] == 'x' || text[digits + 1] == 'X');
}

// The text alone, and the same text inside a line with more cells after it,
// so that both the short-text and the in-line readings are exercised.
void ExpectAgreesWithStrtod(const std::string& text) {
  SCOPED_TRACE("text \"" + text + "\"");
  char* stop = nullptr;
  errno = 0;
  const double expected = std::strtod(text.c_str(), &stop);
  const bool wholeText = !text.empty() && *stop == '\0';  // strtod took every character
  const bool overflow = errno == ERANGE && std::isinf(expected);
  double alone = 0.0;
  const NumberText kind = ReadNumberText(text, '.', alone);
  const std::string line = text + ",12.5,-3,7.25,100,1e3,0.001,42\n";
  double inLine = 0.0;
  const NumberAt at = ReadNumberAt(line.data(), line.data() + line.size(), '.', inLine);
  const NumberText inLineKind =
      at.end == line.data() + text.size() ? at.kind : NumberText::kNotANumber;
  ASSERT_EQ(inLineKind, kind) << "read alone and read in a line differ";
  switch (kind) {
    case NumberText::kNumber:
      ASSERT_TRUE(wholeText);
      ASSERT_FALSE(overflow);
      ASSERT_TRUE(SameBits(alone, expected)) << alone << " against " << expected;
      ASSERT_TRUE(SameBits(inLine, expected)) << inLine << " against " << expected;
      break;
    case NumberText::kTooLarge:
      ASSERT_TRUE(wholeText);
      ASSERT_TRUE(overflow);
      break;
    case NumberText::kNotANumber:
      ASSERT_TRUE(!wholeText || std::isnan(expected) || IsHexadecimal(text))
          << "strtod reads it as " << expected;
      break;
  }
  // With a decimal comma the same text, comma for point, reads the same.
  if (text.find(',') != std::string::npos) return;
  std::string withComma = text;
  for (char& c : withComma) {
    if (c == '.') c = ',';
  }
  double commaValue = 0.0;
  ASSERT_EQ(ReadNumberText(withComma, ',', commaValue), kind);
  if (kind == NumberText::kNumber) {
    ASSERT_TRUE(SameBits(commaValue, alone));
  }
}

TEST(NumberText, HostileTexts) {
  const std::vector<std::string> texts = {
      // halfway cases and the edges of the double range
      "9007199254740993", "9007199254740992", "9007199254740991", "9007199254740993.0", "1e-400",
      "-1e-400", "1e-324", "1e309", "-1e999", "1e2147483648", "1e-2147483649", "0.5e-323",
      "2.2250738585072011e-308", "2.2250738585072014e-308", "4.9406564584124654e-324",
      "2.4703282292062327e-324", "2.4703282292062328e-324", "1.7976931348623157e308",
      "1.7976931348623158e308", "1.7976931348623159e308", "7.2057594037927933e16",
      "123456789012345678901234567890", "0.1000000000000000055511151231257827",
      "0.10000000000000000555111512312578270211815834045410156250000000001",
      "1.00000000000000011102230246251565404236316680908203125",
      "1.00000000000000011102230246251565404236316680908203124",
      "1.00000000000000011102230246251565404236316680908203126",
      // plain decimals at the limits of the exact path
      "9007199254740992.5", "900719925474099.25", "0.0000000000000000000001", "1234567890123456789",
      "12345678901234567890", "1.234567890123456789", "-0", "-0.0",
      "0000000000000000000000000001.5", "00000.00000", "1.", ".5", "-.5", "+.5", "5.e3",
      // signs, words and junk
      "+7", "+-1", "-+1", "++1", "--1", "+", "-", ".", "-.", "e5", "1e", "1e+", "1e-", "1e+5",
      "1E5", "1.5.2", "1..2", "1,5", "inf", "-inf", "+inf", "INF", "Infinity", "-infinity",
      "infinit", "infx", "nan", "-nan", "NaN", "nan(123)", "0x10", "0x1p3", "-0x1.8p1", "0X", "0x",
      "1_000", "1 2", "12abc", "١٢", ""};
  for (const std::string& text : texts)
    ExpectAgreesWithStrtod(text);
}

// 1 to `longest` characters drawn from `alphabet`.
std::string RandomText(std::mt19937_64& random, std::string_view alphabet, std::size_t longest) {
  std::string text(1 + random() % longest, ' ');
  for (char& c : text)
    c = alphabet[random() % alphabet.size()];
  return text;
}

// Random doubles written as a program would write them, random digit strings
// near the exact path's limits, and random strings of number characters.
TEST(NumberText, RandomTexts) {
  std::mt19937_64 random(20261124);
  char buffer[128];
  for (int k = 0; k < 40000; ++k) {
    std::uint64_t bits = random();
    double value = 0.0;
    std::memcpy(&value, &bits, sizeof value);
    if (std::isnan(value)) continue;
    const int precision = static_cast<int>(random() % 26);
    std::snprintf(buffer, sizeof buffer, "%.*g", precision, value);
    ExpectAgreesWithStrtod(buffer);
    std::snprintf(buffer, sizeof buffer, "%.17e", value);
    ExpectAgreesWithStrtod(buffer);
  }
  std::uniform_real_distribution<double> scale(-4000.0, 4000.0);
  for (int k = 0; k < 40000; ++k) {
    const int decimals = static_cast<int>(random() % 24);
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, scale(random));
    ExpectAgreesWithStrtod(buffer);
    std::string digits = RandomText(random, "0123456789", 24);
    digits.insert(random() % (digits.size() + 1), ".");
    if (random() % 2 != 0) digits.insert(0, "-");
    ExpectAgreesWithStrtod(digits);
  }
  for (int k = 0; k < 100000; ++k)
    ExpectAgreesWithStrtod(RandomText(random, "0123456789012345678901234.-+eExXpinfINFa", 10));
}

}  // namespace
}  // namespace vorelstat
