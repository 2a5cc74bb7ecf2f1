#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tarnio/testing/expect_throw_message.h"
#include "tarnio/units/base_unit.h"
#include "tarnio/units/runtime_value.h"

namespace Tarn::units {
namespace {

struct OmeEnumeration {
  std::string_view reference;  // a unit every keyword of the enumeration converts to
  std::vector<std::string_view> keywords;
};

const std::vector<OmeEnumeration>& ome_enumerations() {
  static const std::vector<OmeEnumeration> all = {
      {"m", {"Ym",   "Zm", "Em", "Pm", "Tm", "Gm", "Mm", "km", "hm", "dam", "m",
             "dm",   "cm", "mm", "µm", "nm", "pm", "fm", "am", "zm", "ym",  "Å",
             "thou", "li", "in", "ft", "yd", "mi", "ua", "ly", "pc", "pt"}},
      {"pixel", {"pixel"}},
      {"reference frame", {"reference frame"}},
      {"s", {"Ys", "Zs", "Es", "Ps", "Ts", "Gs", "Ms", "ks", "hs", "das", "s", "ds",
             "cs", "ms", "µs", "ns", "ps", "fs", "as", "zs", "ys", "min", "h", "d"}},
      {"Hz", {"YHz", "ZHz", "EHz", "PHz", "THz", "GHz", "MHz", "kHz", "hHz", "daHz", "Hz",
              "dHz", "cHz", "mHz", "µHz", "nHz", "pHz", "fHz", "aHz", "zHz", "yHz"}},
      {"W", {"YW", "ZW", "EW", "PW", "TW", "GW", "MW", "kW", "hW", "daW", "W",
             "dW", "cW", "mW", "µW", "nW", "pW", "fW", "aW", "zW", "yW"}},
      {"Pa", {"YPa",  "ZPa",  "EPa",  "PPa",  "TPa",  "GPa", "MPa", "kPa",  "hPa",   "daPa", "Pa",
              "dPa",  "cPa",  "mPa",  "µPa",  "nPa",  "pPa", "fPa", "aPa",  "zPa",   "yPa",  "bar",
              "Mbar", "kbar", "dbar", "cbar", "mbar", "atm", "psi", "Torr", "mTorr", "mm Hg"}},
      {"K", {"°C", "°F", "K", "°R"}},
      {"V", {"YV", "ZV", "EV", "PV", "TV", "GV", "MV", "kV", "hV", "daV", "V",
             "dV", "cV", "mV", "µV", "nV", "pV", "fV", "aV", "zV", "yV"}},
      {"rad", {"deg", "rad", "gon"}},
  };
  return all;
}

TEST(BaseUnit, EveryOmeKeywordParsesFormatsBackAndNamesAUnitOfItsOwn) {
  // Two pairs of pressure keywords name one unit each.
  const auto same = [](std::string_view a, std::string_view b) {
    return (a == "kPa" && b == "cbar") || (a == "hPa" && b == "mbar");
  };
  for (const OmeEnumeration& e : ome_enumerations()) {
    const BaseUnit reference = BaseUnit::parse(e.reference);
    for (std::size_t i = 0; i < e.keywords.size(); ++i) {
      const std::string keyword(e.keywords[i]);
      SCOPED_TRACE(keyword);
      const BaseUnit unit = BaseUnit::parse(keyword);
      EXPECT_EQ(unit.to_string(), keyword);
      EXPECT_TRUE(unit.is_compatible(reference));
      EXPECT_EQ(RuntimeValue::parse("2.5 " + keyword).to_string(), "2.5 " + keyword);
      for (std::size_t j = 0; j < i; ++j) {
        EXPECT_EQ(BaseUnit::parse(e.keywords[j]) == unit, same(e.keywords[j], keyword))
            << e.keywords[j];
      }
    }
  }
}

TEST(BaseUnit, SpellingsOfOneUnitAreEqualAndFormatCanonically) {
  struct Case {
    std::string_view written, canonical, same_as;
  };
  const Case cases[] = {
      {"um", "µm", "µm"},
      {"\u03BCm", "µm", "um"},
      {"inch", "in", "in"},
      {"mmHg", "mm Hg", "mm Hg"},
      {"\u212B", "Å", "Å"},
      {"°", "deg", "deg"},
      {"  nm ", "nm", "nm"},
      {"m/s", "m/s", "1/s*m"},
      {"m s^-1", "m*s^-1", "m/s"},
      {"1/s", "1/s", "Hz"},
      {"cm-1", "cm-1", "1/cm"},
      {"um^-1", "µm^-1", "1/um"},
      {"m^2", "m^2", "m*m"},
      {"N·m", "N*m", "J"},
      {"J/(kg*K)", "J/(kg*K)", "J/kg/K"},
      {"kg", "kg", "1000 g"},
      {"W/m^2", "W/m^2", "kg*s^-3"},
      {"px", "pixel", "pixel"},
      {"count", "counts", "counts"},
      {"V*A", "V*A", "W"},
      {"Pa*m^3", "Pa*m^3", "J"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.written));
    const BaseUnit unit = BaseUnit::parse(c.written);
    EXPECT_EQ(unit.to_string(), c.canonical);
    if (c.same_as == "1000 g") {
      EXPECT_DOUBLE_EQ(unit.scale(), 1.0);
    } else {
      EXPECT_EQ(unit, BaseUnit::parse(c.same_as));
    }
    // What is formatted reads back as the same unit and text.
    EXPECT_EQ(BaseUnit::parse(unit.to_string()), unit);
    EXPECT_EQ(BaseUnit::parse(unit.to_string()).to_string(), unit.to_string());
  }
}

TEST(BaseUnit, CombinedUnitsReadBackFromTheirText) {
  const BaseUnit m = BaseUnit::parse("m");
  const BaseUnit s = BaseUnit::parse("s");
  const BaseUnit mm = BaseUnit::parse("mm Hg");
  const BaseUnit combined[] = {m / s,           m / (s * s),    (m / s).pow(2),
                               (m / s).pow(-1), BaseUnit() / s, m * (BaseUnit() / s),
                               mm.pow(2),       s.pow(0)};
  for (const BaseUnit& u : combined) {
    SCOPED_TRACE(u.to_string());
    EXPECT_EQ(BaseUnit::parse(u.to_string()), u);
  }
  EXPECT_EQ((m / s).to_string(), "m/s");
  EXPECT_EQ((BaseUnit() / s).to_string(), "1/s");
  EXPECT_EQ((m / s).pow(2).to_string(), "(m/s)^2");
  EXPECT_EQ(s.pow(0).to_string(), "");
  EXPECT_TRUE(s.pow(0).is_dimensionless());
}

TEST(RuntimeValue, ConvertsBetweenCompatibleUnits) {
  struct Case {
    std::string_view from, to;
    double expected;
  };
  const Case cases[] = {
      {"1.5 um", "nm", 1500},   {"1500 nm", "µm", 1.5},  {"20 °C", "K", 293.15},
      {"293.15 K", "°C", 20},   {"212 °F", "°C", 100},   {"0 °R", "K", 0},
      {"1 in", "mm", 25.4},     {"1 ft", "in", 12},      {"1 mi", "km", 1.609344},
      {"1 atm", "Pa", 101325},  {"760 Torr", "atm", 1},  {"1 bar", "kPa", 100},
      {"180 deg", "rad", M_PI}, {"200 gon", "deg", 180}, {"1 h", "min", 60},
      {"1 kHz", "1/ms", 1},     {"10 %", "ppm", 100000}, {"1 Å", "pm", 100},
      {"3 m/s", "km/h", 10.8},  {"2 cm-1", "1/m", 200},  {"1 ly", "m", 9460730472580800},
      {"1 Ym", "ym", 1e48},     {"5 mW", "J/s", 0.005},  {"1 kg*m^2/s^2", "J", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.from) + " -> " + std::string(c.to));
    const RuntimeValue v = RuntimeValue::parse(c.from).in(c.to);
    EXPECT_NEAR(v.value(), c.expected, 1e-12 * std::abs(c.expected));
    EXPECT_EQ(v.unit().to_string(), BaseUnit::parse(c.to).to_string());
    // Converting back lands on the start.
    EXPECT_EQ(v.in(RuntimeValue::parse(c.from).unit()), RuntimeValue::parse(c.from));
  }
  // Decimal prefixes convert exactly, and so do shifted scales where the result is decimal.
  const std::pair<std::string_view, std::string_view> exact[] = {
      {"1.5 um", "1500 nm"}, {"1500 nm", "1.5 µm"}, {"20 °C", "68 °F"},      {"68 °F", "20 °C"},
      {"37 °C", "98.6 °F"},  {"98.6 °F", "37 °C"},  {"-40 °F", "-40 °C"},    {"100 °C", "212 °F"},
      {"0 °C", "273.15 K"},  {"273.15 K", "0 °C"},  {"20.5 °C", "293.65 K"}, {"293.15 K", "20 °C"},
  };
  for (const auto& [from, to] : exact) {
    const RuntimeValue expected = RuntimeValue::parse(to);
    EXPECT_EQ(RuntimeValue::parse(from).in(expected.unit()).to_string(), expected.to_string());
  }
}

TEST(RuntimeValue, TemperatureDifferencesAreDifferences) {
  const auto value = [](std::string_view text) { return RuntimeValue::parse(text); };
  const std::pair<RuntimeValue, std::string_view> cases[] = {
      {value("10 °C") + value("1 K"), "11 °C"},  {value("10 °C") + value("1 °C"), "11 °C"},
      {value("20 °C") - value("5 K"), "15 °C"},  {value("50 °F") + value("9 °R"), "59 °F"},
      {value("20 °C") - value("10 °C"), "10 K"}, {value("68 °F") - value("20 °C"), "0 °R"},
      {value("77 °F") - value("5 °C"), "36 °R"}, {value("300 K") - value("290 K"), "10 K"},
  };
  for (const auto& [result, expected] : cases) EXPECT_EQ(result.to_string(), expected);
  EXPECT_EQ(value("300 K") - value("20 °C"), value("6.85 K"));
}

TEST(RuntimeValue, IncompatibleDimensionsNameBothUnits) {
  EXPECT_THROW_MESSAGE(RuntimeValue::parse("1 um").in("s"), std::invalid_argument,
                       "Cannot convert 'µm' to 's': incompatible units.");
  EXPECT_THROW_MESSAGE(RuntimeValue::parse("3 pixel").in("m"), std::invalid_argument,
                       "Cannot convert 'pixel' to 'm': incompatible units.");
  EXPECT_THROW_MESSAGE(RuntimeValue::parse("1 deg") + RuntimeValue::parse("1 %"),
                       std::invalid_argument, "Cannot convert '%' to 'deg': incompatible units.");
  // Distinct dimensionless kinds stay apart.
  for (std::string_view a : {"pixel", "reference frame", "counts", "rad", "%"}) {
    for (std::string_view b : {"pixel", "reference frame", "counts", "rad", "%"}) {
      EXPECT_EQ(BaseUnit::parse(a).is_compatible(BaseUnit::parse(b)), a == b) << a << " " << b;
    }
  }
  EXPECT_FALSE(RuntimeValue::parse("1 m") == RuntimeValue::parse("1 s"));
  EXPECT_THROW((void)(RuntimeValue::parse("1 m") < RuntimeValue::parse("1 s")),
               std::invalid_argument);
}

TEST(RuntimeValue, ParsesAndFormats) {
  struct Case {
    std::string_view text, formatted;
  };
  const Case cases[] = {
      {"1.5 um", "1.5 µm"},   {"1.5um", "1.5 µm"},
      {"um", "1 µm"},         {"-3e-2 m/s", "-0.03 m/s"},
      {"+2 s", "2 s"},        {"2/s", "2 1/s"},
      {"42", "42"},           {"-1", "-1"},
      {" 7 K ", "7 K"},       {"0.1 mm Hg", "0.1 mm Hg"},
      {"1e-07 m", "1e-07 m"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text));
    const RuntimeValue v = RuntimeValue::parse(c.text);
    EXPECT_EQ(v.to_string(), c.formatted);
    EXPECT_EQ(RuntimeValue::parse(v.to_string()), v);
  }
  EXPECT_EQ(RuntimeValue(), RuntimeValue(1.0, BaseUnit()));
}

TEST(RuntimeValue, CombinesAndCompares) {
  const RuntimeValue length = RuntimeValue::parse("3 m");
  const RuntimeValue time = RuntimeValue::parse("2 s");
  EXPECT_EQ(length / time, RuntimeValue::parse("1.5 m/s"));
  EXPECT_EQ((length / time).to_string(), "1.5 m/s");
  EXPECT_EQ(length * length, RuntimeValue::parse("9 m^2"));
  EXPECT_EQ(length.pow(-2), RuntimeValue::parse("0.111111111111111111 1/m^2"));
  EXPECT_EQ(length + RuntimeValue::parse("50 cm"), RuntimeValue::parse("3.5 m"));
  EXPECT_EQ((length - RuntimeValue::parse("50 cm")).unit().to_string(), "m");
  EXPECT_EQ(2.0 * length, RuntimeValue::parse("6000 mm"));
  EXPECT_EQ(RuntimeValue::parse("1.5 um"), RuntimeValue::parse("1500 nm"));
  EXPECT_LT(RuntimeValue::parse("999 nm"), RuntimeValue::parse("1 um"));
  EXPECT_GT(RuntimeValue::parse("0 °C"), RuntimeValue::parse("273 K"));
  EXPECT_NE(RuntimeValue::parse("1 m"), RuntimeValue::parse("1.0001 m"));
  // Inside a product a temperature scale stands for a difference: °C/s is K/s.
  EXPECT_EQ(RuntimeValue::parse("1 °C/s").in("K/s").value(), 1.0);
}

TEST(BaseUnit, MalformedTextIsRejectedClearly) {
  struct Case {
    std::string_view text, message;
  };
  const Case cases[] = {
      {"furlong", "Unknown unit 'furlong' at position 1 of 'furlong'."},
      {"m/parsec", "Unknown unit 'parsec' at position 3 of 'm/parsec'."},
      {"kmin", "Unknown unit 'kmin' at position 1 of 'kmin'."},
      {"kin", "Unknown unit 'kin' at position 1 of 'kin'."},
      {"m^", "Invalid unit 'm^' at position 3."},
      {"m^x", "Invalid unit 'm^x' at position 3."},
      {"m^999", "Invalid unit 'm^999' at position 4."},
      {"m^40*m^40", "Invalid unit 'm^40*m^40' at position 10."},
      {"m//s", "Invalid unit 'm//s' at position 3."},
      {"(m/s", "Invalid unit '(m/s' at position 5."},
      {"m)", "Invalid unit 'm)' at position 2."},
      {"2 m", "Invalid unit '2 m' at position 1."},
      {"1m", "Invalid unit '1m' at position 2."},
      {"m*", "Invalid unit 'm*' at position 3."},
      {"\xC2", "Unknown unit '\xC2' at position 1 of '\xC2'."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.text));
    EXPECT_THROW_MESSAGE((void)BaseUnit::parse(c.text), std::runtime_error, c.message);
  }
  // Errors in the unit of a value name the whole value text.
  EXPECT_THROW_MESSAGE(RuntimeValue::parse("1.5 um//s"), std::runtime_error,
                       "Invalid unit '1.5 um//s' at position 8.");
  EXPECT_THROW_MESSAGE(RuntimeValue::parse("2/furlong"), std::runtime_error,
                       "Unknown unit 'furlong' at position 3 of '2/furlong'.");
  // Positions count in the text as given, blanks included.
  EXPECT_THROW_MESSAGE((void)BaseUnit::parse("  m//s"), std::runtime_error,
                       "Invalid unit '  m//s' at position 5.");
  // Deep nesting is refused, not followed down the stack.
  const std::string nested = std::string(100000, '(') + "m" + std::string(100000, ')');
  EXPECT_THROW(BaseUnit::parse(nested), std::runtime_error);
  EXPECT_EQ(BaseUnit::parse("((m))/((s))"), BaseUnit::parse("m/s"));
  // Powers of dimensionless units are bounded too.
  EXPECT_THROW(BaseUnit::parse("(((((%^64)^64)^64)^64)^64)"), std::runtime_error);
  EXPECT_THROW(BaseUnit::parse("ppm").pow(64).pow(64), std::invalid_argument);
  for (const std::string_view text : {"1e999 m", "", "  ", "\t", "+"}) {
    EXPECT_THROW_MESSAGE(RuntimeValue::parse(text), std::runtime_error,
                         "Invalid value '" + std::string(text) + "'.");
  }
  // A scale beyond the range of numbers equals no other scale.
  EXPECT_NE(BaseUnit::parse("(Ym/m)^64"), BaseUnit());
  EXPECT_NE(BaseUnit({}, 1, 4096, 0, "big"), BaseUnit({}, 1, -4096, 0, "small"));
  EXPECT_THROW_MESSAGE(BaseUnit::parse("m").pow(65), std::invalid_argument,
                       "Unit exponent out of range.");
}

}  // namespace
}  // namespace Tarn::units
