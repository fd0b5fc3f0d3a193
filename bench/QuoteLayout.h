#pragma once
// The 14-field, 120-byte quote layout and its generated records, shared by the record benchmark and the
// capture generator (make_quote_capture).
//
// The records come from a fixed seed: item codes, names of cp949 Hangul and ASCII, prices and signed changes
// as numeric text with implied places, a rate with its own point, times, binary volumes and values, a float
// and a double with places, and a flag that is mostly blank.

#include <array>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "blockproc/data/BlockInfo.h"
#include "blockproc/detail/TextCodec.h"

namespace blockproc::quote {

constexpr int32_t kRecordSize = 120;
constexpr int32_t kFields = 14;

// Uniform enough for test data, and the same on every standard library (unlike the distributions).
class Dice {
 public:
  explicit Dice(uint32_t seed = 20261123) : gen_(seed) {}
  uint32_t below(uint32_t n) { return static_cast<uint32_t>(gen_() % n); }
  bool chance(uint32_t percent) { return below(100) < percent; }

 private:
  std::mt19937 gen_;
};

inline std::string padded(std::string bytes, size_t width) {
  bytes.resize(width, ' ');
  return bytes;
}

inline std::string digits(uint64_t value, size_t width) {
  std::string text(width, '0');
  for (size_t i = width; i-- > 0 && value > 0; value /= 10) text[i] = static_cast<char>('0' + value % 10);
  return text;
}

// A sign byte then zero-filled digits: "-0001250".
inline std::string signedDigits(int64_t value, size_t width) {
  return (value < 0 ? "-" : "+") + digits(static_cast<uint64_t>(value < 0 ? -value : value), width - 1);
}

template <typename T>
inline std::string binary(T value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

inline std::string name(Dice& dice) {
  static constexpr std::array<const char*, 12> kHeads{
      "삼성전자",  "SK하이닉스", "LG에너지솔루션", "현대차",           "NAVER",  "카카오",
      "KODEX 200", "셀트리온",   "POSCO홀딩스",    "TIGER 미국S&P500", "KB금융", "기아"};
  static constexpr std::array<const char*, 5> kTails{"", "우", " 2X", "레버리지", " ETN"};
  const std::string utf8 = std::string(kHeads[dice.below(kHeads.size())]) + kTails[dice.below(kTails.size())];
  return padded(codec::encode(kTextEncodingCP949, utf8).value_or(""), 40);
}

// How the records' values are made.
enum class Values {
  Bench,     // the benchmarks' records: whole floats, doubles of two places, signs written '+' or '-'
  Computed,  // as a gateway writes them: computed averages and ratios with all their places, blank numbers,
             // signs written only below zero, so that encoding the decoded values gives the same bytes
};

// A sign byte ('-' below zero; '+' or, for Values::Computed, '0' otherwise) then zero-filled digits.
inline std::string signedField(int64_t value, size_t width, Values values) {
  std::string text = signedDigits(value, width);
  if (values == Values::Computed && text[0] == '+') text[0] = '0';
  return text;
}

inline std::string quoteRecord(Dice& dice, Values values = Values::Bench) {
  const bool computed = values == Values::Computed;
  const int64_t price = 1000 + dice.below(90'000'000);
  const int64_t change = static_cast<int64_t>(dice.below(2'000'000)) - 1'000'000;
  const uint32_t rate = dice.below(3000);
  std::string rec;
  rec += padded("A" + digits(dice.below(1'000'000), 6), 12);  // shcode
  rec += name(dice);                                          // hname
  rec += digits(static_cast<uint64_t>(price), 10);            // price
  rec += change > 0 ? "2" : change < 0 ? "5" : "3";           // sign
  rec += signedField(change, 8, values);                      // change
  const char* rateSign = change < 0 && (rate > 0 || !computed) ? "-" : computed ? "0" : "+";
  rec += rateSign + digits(rate / 100, 2) + "." + digits(rate % 100, 2);                             // drate
  rec += computed && dice.chance(5) ? std::string(10, ' ') : digits(dice.below(2'000'000'000), 10);  // volume
  rec += digits(90000 + dice.below(63000), 6);                                                       // time
  rec += binary<int16_t>(static_cast<int16_t>(dice.below(60000)));    // cvolume
  rec += binary<int64_t>(int64_t{dice.below(2'000'000'000)} * 1000);  // value
  if (computed) {
    // per: the price over earnings per share, times 100 (the float's two places); avgprice: the mean of a
    // few trades around the price, in won, as a division leaves it (10300.333333333334).
    const double eps = 50.0 + dice.below(100'000);
    rec += binary<float>(static_cast<float>(static_cast<double>(price) / eps));
    int64_t sum = 0;
    const uint32_t trades = 1 + dice.below(7);
    for (uint32_t k = 0; k < trades; ++k) sum += price / 100 + dice.below(200) - 100;
    rec += binary<double>(static_cast<double>(sum) / trades);
  } else {
    rec += binary<float>(static_cast<float>(dice.below(100'000)));  // per
    rec +=
        binary<double>(static_cast<double>(price + 25) / 100.0);  // avgprice: the double nearest two places
  }
  rec += computed && dice.chance(10) ? std::string(4, ' ') : digits(dice.below(10'000), 4);  // ticks
  rec += dice.chance(80) ? " " : "*";                                                        // flag
  return rec;
}

// The layout's fields, in record order.
inline void addFields(BlockInfo& block) {
  block.addField("shcode", kFieldText, 12);
  block.addField("hname", kFieldText, 40);
  block.addField("price", kFieldNumText, 10, 2);
  block.addField("sign", kFieldText, 1);
  block.addField("change", kFieldNumText, 8, 2);
  block.addField("drate", kFieldNumText, 6, 2);
  block.addField("volume", kFieldNumText, 10);
  block.addField("time", kFieldText, 6);
  block.addField("cvolume", kFieldInt16, 2);
  block.addField("value", kFieldInt64, 8);
  block.addField("per", kFieldFloat, 4, 2);
  block.addField("avgprice", kFieldDouble, 8, 2);
  block.addField("ticks", kFieldNumText, 4, 3);
  block.addField("flag", kFieldText, 1);
}

// A transaction definition whose reply is one count="rest" block OutBlock1 of the layout, capped at `repeat`;
// for Values::Computed the numbers written without their point say so (point="implied").
inline std::string definitionXml(int64_t repeat, Values values = Values::Bench) {
  const std::string implied = values == Values::Computed ? R"( point="implied")" : "";
  return R"(<?xml version="1.0" encoding="UTF-8"?>
<transaction code="Q90100" title="quotes" occurslen="4" encoding="cp949">
  <input>
    <block name="InBlock">
      <field name="shcode" type="text" length="12"/>
    </block>
  </input>
  <output>
    <block name="OutBlock1" repeat=")" +
         std::to_string(repeat) + R"(" count="rest">
      <field name="shcode" type="text" length="12"/>
      <field name="hname" type="text" length="40"/>
      <field name="price" type="number" length="10" decimals="2")" +
         implied + R"(/>
      <field name="sign" type="text" length="1"/>
      <field name="change" type="number" length="8" decimals="2")" +
         implied + R"(/>
      <field name="drate" type="number" length="6" decimals="2"/>
      <field name="volume" type="number" length="10"/>
      <field name="time" type="text" length="6"/>
      <field name="cvolume" type="int16"/>
      <field name="value" type="int64"/>
      <field name="per" type="float" decimals="2"/>
      <field name="avgprice" type="double" decimals="2"/>
      <field name="ticks" type="number" length="4" decimals="3")" +
         implied + R"(/>
      <field name="flag" type="text" length="1"/>
    </block>
  </output>
</transaction>
)";
}

}  // namespace blockproc::quote
