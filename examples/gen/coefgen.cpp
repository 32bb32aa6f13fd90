// coefgen: fills the bulky coefficient lists of the example tuning sources.
//
//   coefgen <source.textproto> <output.textproto>
//
// The example tuning files are written by hand in protobuf text format, except
// for their coefficient lists, which run to thousands of values. In their place
// a source carries one directive line, starting with "#@", which is a comment
// to the text-format parser, so a source also encodes as it stands (with empty
// tables). coefgen copies the source line by line and replaces each directive
// with the list it describes, `coeff_16: [...]` or `coeff_32: [...]`, at the
// directive's indentation:
//
//   #@ brir pairs=P taps=T rt60=MS seed=S
//       binaural room impulse responses, coeff_16 in Q15: P pairs, each the
//       left-ear then the right-ear response of T taps (2*P*T values). A direct
//       sound with an interaural delay, a few early reflections, then a noise
//       tail decaying by 60 dB in MS milliseconds.
//   #@ hpir taps=T seed=S [gain=G] [delay=D]
//       inverse headphone impulse response, coeff_16: the two control words
//       G (default 4096) and D (default 0), then T taps of the left channel and
//       T taps of the right channel in Q15 (2 + 2*T values).
//   #@ sos field=coeff_32|coeff_16 q=Q [header=H] [n=N] [filters=LIST] [peq=K seed=S]
//       a cascade of biquad sections, each written as b0 b1 b2 a1 a2 (the
//       denominator being 1 + a1 z^-1 + a2 z^-2) in fixed point with Q
//       fractional bits, each section preceded by the word H when `header` is
//       given. LIST is a comma-separated list of
//         hp:FC:Q   lp:FC:Q   second-order high-/low-pass
//         pk:FC:DB:Q         peaking band
//         bhp:FC:ORDER  blp:FC:ORDER   Butterworth cascade of ORDER/2 sections
//       and peq=K appends K peaking bands spread over the audio band with
//       gains and widths drawn from the seed. The list is padded with zeros up
//       to N values.
//
// The sample rate of a directive is that of the nearest `sampleRate:` line
// above it, so one room or filter written out for several rates uses the same
// seed and differs only by rate. Values come from a SplitMix64 generator
// seeded with kBaseSeed mixed with the directive's seed (no library random
// engine or distribution), so the output is the same on every run. A value
// that does not fit its fixed-point field is an error, never clipped.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr uint64_t kBaseSeed = 0x51C0EF6E4E5EED01ULL;
constexpr double kPi = 3.14159265358979323846;
constexpr size_t kValuesPerLine = 16;

// SplitMix64: a tiny, well-mixed generator whose sequence is fixed by its seed.
struct SplitMix64 {
  uint64_t state;
  uint64_t Next() {
    uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  // Uniform in [-1, 1), from the top 53 bits.
  double Uniform() { return static_cast<double>(Next() >> 11) * 0x1.0p-52 - 1.0; }
  // Bell-shaped in (-1, 1), variance 1/9: the mean of three uniforms.
  double Noise() { return (Uniform() + Uniform() + Uniform()) / 3.0; }
};

SplitMix64 SeededRng(uint64_t seed, uint64_t stream) {
  SplitMix64 mixer{kBaseSeed ^ (seed * 0xD1B54A32D192ED03ULL) ^ (stream << 32)};
  return SplitMix64{mixer.Next()};
}

struct Directive {
  std::string kind;
  std::map<std::string, std::string> args;
  double sampleRate = 0;
};

struct Biquad {
  double b0, b1, b2, a1, a2;
};

// ---- Argument access: every failure is reported once by the caller ---------

bool ParseNumber(const std::string& text, double& out) {
  const char* begin = text.c_str();
  char* end = nullptr;
  out = std::strtod(begin, &end);
  return end != begin && *end == '\0' && std::isfinite(out);
}

bool GetNumber(const Directive& d, const std::string& key, double& out, std::string& error) {
  auto it = d.args.find(key);
  if (it == d.args.end()) {
    error = "missing " + key + "=";
    return false;
  }
  if (!ParseNumber(it->second, out)) {
    error = "bad number for " + key + ": '" + it->second + "'";
    return false;
  }
  return true;
}

bool GetCount(const Directive& d, const std::string& key, long& out, std::string& error) {
  double value = 0;
  if (!GetNumber(d, key, value, error)) return false;
  if (value < 0 || value > 1e6 || value != std::floor(value)) {
    error = key + " must be a whole number between 0 and 1000000";
    return false;
  }
  out = static_cast<long>(value);
  return true;
}

bool GetOptional(const Directive& d, const std::string& key, double fallback, double& out,
                 std::string& error) {
  if (d.args.count(key) == 0) {
    out = fallback;
    return true;
  }
  return GetNumber(d, key, out, error);
}

// ---- Fixed point -------------------------------------------------------------

bool ToFixed(double value, int fracBits, int32_t lo, int32_t hi, int32_t& out,
             std::string& error) {
  const double scaled = std::nearbyint(std::ldexp(value, fracBits));
  if (scaled < lo || scaled > hi) {
    std::ostringstream text;
    text << "value " << value << " does not fit Q" << fracBits << " in [" << lo << ", " << hi
         << "]";
    error = text.str();
    return false;
  }
  out = static_cast<int32_t>(scaled);
  return true;
}

bool ToQ15(const std::vector<double>& samples, std::vector<int32_t>& out, std::string& error) {
  for (double s : samples) {
    int32_t v = 0;
    if (!ToFixed(s, 15, INT16_MIN, INT16_MAX, v, error)) return false;
    out.push_back(v);
  }
  return true;
}

// ---- Impulse responses -------------------------------------------------------

// One ear of one source: direct sound, early reflections, decaying tail.
std::vector<double> RoomResponse(SplitMix64& rng, long taps, double rate, double rt60Ms,
                                 double delay, double gain) {
  std::vector<double> h(static_cast<size_t>(taps), 0.0);
  const double decayPerTap = std::exp(-6.907755 / (rt60Ms * 1e-3 * rate));  // -60 dB at rt60
  const size_t direct = static_cast<size_t>(delay);
  if (direct < h.size()) h[direct] = 0.6 * gain;
  if (direct + 1 < h.size()) h[direct + 1] = 0.15 * gain;
  // Early reflections between 2 and 25 ms after the direct sound.
  for (int i = 0; i < 8; ++i) {
    const double when = delay + rate * (0.002 + 0.0115 * (rng.Uniform() + 1.0));
    const size_t at = static_cast<size_t>(when);
    if (at < h.size()) h[at] += 0.25 * rng.Uniform() * std::pow(decayPerTap, when);
  }
  // Diffuse tail from 10 ms on, fading in over 5 ms.
  const double tailStart = delay + 0.010 * rate;
  double envelope = 0.08 * std::pow(decayPerTap, tailStart);
  for (size_t n = static_cast<size_t>(tailStart); n < h.size(); ++n) {
    const double fade = std::fmin(1.0, (static_cast<double>(n) - tailStart) / (0.005 * rate));
    h[n] += envelope * fade * rng.Noise();
    envelope *= decayPerTap;
  }
  return h;
}

bool GenerateBrir(const Directive& d, std::vector<int32_t>& out, std::string& error) {
  long pairs = 0, taps = 0;
  double rt60 = 0, seed = 0;
  if (!GetCount(d, "pairs", pairs, error) || !GetCount(d, "taps", taps, error) ||
      !GetNumber(d, "rt60", rt60, error) || !GetNumber(d, "seed", seed, error)) {
    return false;
  }
  if (pairs < 1 || taps < 1 || rt60 <= 0) {
    error = "brir needs pairs >= 1, taps >= 1 and rt60 > 0";
    return false;
  }
  for (long p = 0; p < pairs; ++p) {
    // Sources spread from the left (-60 degrees) to the right (+60 degrees).
    const double azimuth =
        pairs == 1 ? 0.0 : (-60.0 + 120.0 * static_cast<double>(p) / (pairs - 1)) * kPi / 180.0;
    const double itd = 0.00066 * d.sampleRate * std::fabs(std::sin(azimuth));
    const double base = 0.001 * d.sampleRate;  // 1 ms of propagation
    for (int ear = 0; ear < 2; ++ear) {
      const bool nearEar = (ear == 0) == (azimuth <= 0);
      const double delay = base + (nearEar ? 0.0 : itd);
      const double gain = nearEar ? 1.0 : 1.0 - 0.45 * std::fabs(std::sin(azimuth));
      SplitMix64 rng = SeededRng(static_cast<uint64_t>(seed), static_cast<uint64_t>(2 * p + ear));
      if (!ToQ15(RoomResponse(rng, taps, d.sampleRate, rt60, delay, gain), out, error)) {
        return false;
      }
    }
  }
  return true;
}

// Inverse headphone response of one channel: a leading impulse and damped
// sinusoids that cancel the ear-cup resonances.
std::vector<double> InverseHeadphoneResponse(SplitMix64& rng, long taps, double rate) {
  std::vector<double> h(static_cast<size_t>(taps), 0.0);
  h[0] = 0.72;
  if (h.size() > 1) h[1] = -0.18;
  const double resonances[] = {2900.0, 5800.0, 8700.0};
  for (double f : resonances) {
    const double freq = f * (1.0 + 0.04 * rng.Uniform());
    const double amp = 0.12 * (1.0 + 0.3 * rng.Uniform());
    const double decay = std::exp(-1.0 / (0.0004 * rate));
    double env = amp;
    for (size_t n = 1; n < h.size() && freq < 0.45 * rate; ++n) {
      h[n] -= env * std::sin(2.0 * kPi * freq * static_cast<double>(n) / rate);
      env *= decay;
    }
  }
  for (size_t n = 1; n < h.size(); ++n) h[n] += 0.002 * rng.Noise();
  return h;
}

bool GenerateHpir(const Directive& d, std::vector<int32_t>& out, std::string& error) {
  long taps = 0;
  double seed = 0, gain = 0, delay = 0;
  if (!GetCount(d, "taps", taps, error) || !GetNumber(d, "seed", seed, error) ||
      !GetOptional(d, "gain", 4096, gain, error) || !GetOptional(d, "delay", 0, delay, error)) {
    return false;
  }
  if (taps < 1) {
    error = "hpir needs taps >= 1";
    return false;
  }
  for (double word : {gain, delay}) {
    if (word != std::floor(word) || word < INT16_MIN || word > INT16_MAX) {
      error = "hpir gain= and delay= must be 16-bit whole numbers";
      return false;
    }
    out.push_back(static_cast<int32_t>(word));
  }
  for (uint64_t channel = 0; channel < 2; ++channel) {
    SplitMix64 rng = SeededRng(static_cast<uint64_t>(seed), channel);
    if (!ToQ15(InverseHeadphoneResponse(rng, taps, d.sampleRate), out, error)) return false;
  }
  return true;
}

// ---- Biquad cascades -----------------------------------------------------------

Biquad Normalise(double b0, double b1, double b2, double a0, double a1, double a2) {
  return Biquad{b0 / a0, b1 / a0, b2 / a0, a1 / a0, a2 / a0};
}

Biquad SecondOrder(bool highPass, double fc, double q, double rate) {
  const double w0 = 2.0 * kPi * fc / rate;
  const double cosw = std::cos(w0);
  const double alpha = std::sin(w0) / (2.0 * q);
  const double edge = highPass ? (1.0 + cosw) / 2.0 : (1.0 - cosw) / 2.0;
  const double middle = highPass ? -(1.0 + cosw) : 1.0 - cosw;
  return Normalise(edge, middle, edge, 1.0 + alpha, -2.0 * cosw, 1.0 - alpha);
}

Biquad Peaking(double fc, double gainDb, double q, double rate) {
  const double w0 = 2.0 * kPi * fc / rate;
  const double cosw = std::cos(w0);
  const double alpha = std::sin(w0) / (2.0 * q);
  const double a = std::pow(10.0, gainDb / 40.0);
  return Normalise(1.0 + alpha * a, -2.0 * cosw, 1.0 - alpha * a, 1.0 + alpha / a, -2.0 * cosw,
                   1.0 - alpha / a);
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream stream(text);
  while (std::getline(stream, part, separator)) parts.push_back(part);
  return parts;
}

bool AppendFilter(const std::string& spec, double rate, std::vector<Biquad>& sections,
                  std::string& error) {
  const std::vector<std::string> f = Split(spec, ':');
  std::vector<double> v;
  for (size_t i = 1; i < f.size(); ++i) {
    double x = 0;
    if (!ParseNumber(f[i], x) || (x <= 0 && !(f[0] == "pk" && i == 2))) {  // gains may be <= 0
      error = "bad filter '" + spec + "'";
      return false;
    }
    v.push_back(x);
  }
  if (!v.empty() && v[0] >= rate / 2) {
    error = "filter '" + spec + "' lies above half the sample rate";
    return false;
  }
  if ((f[0] == "hp" || f[0] == "lp") && v.size() == 2) {
    sections.push_back(SecondOrder(f[0] == "hp", v[0], v[1], rate));
  } else if (f[0] == "pk" && v.size() == 3) {
    sections.push_back(Peaking(v[0], v[1], v[2], rate));
  } else if ((f[0] == "bhp" || f[0] == "blp") && v.size() == 2 &&
             static_cast<long>(v[1]) % 2 == 0 && v[1] == std::floor(v[1])) {
    const long order = static_cast<long>(v[1]);
    for (long k = 1; k <= order / 2; ++k) {
      const double q = 1.0 / (2.0 * std::sin((2.0 * k - 1.0) * kPi / (2.0 * order)));
      sections.push_back(SecondOrder(f[0] == "bhp", v[0], q, rate));
    }
  } else {
    error = "unknown filter '" + spec + "' (hp:FC:Q, lp:FC:Q, pk:FC:DB:Q, bhp:FC:N, blp:FC:N)";
    return false;
  }
  return true;
}

// K peaking bands, log-spaced from 40 Hz to 16 kHz with a little jitter; each
// band draws its numbers from its own stream, so the set is the same at every rate.
void AppendRandomPeaking(long count, uint64_t seed, double rate, std::vector<Biquad>& sections) {
  for (long k = 0; k < count; ++k) {
    SplitMix64 rng = SeededRng(seed, static_cast<uint64_t>(k));
    const double position = (static_cast<double>(k) + 0.5 + 0.3 * rng.Uniform()) / count;
    const double fc = std::fmin(40.0 * std::pow(400.0, position), 0.45 * rate);
    const double gainDb = 6.0 * rng.Uniform();
    const double q = 1.6 + 0.9 * rng.Uniform();
    sections.push_back(Peaking(fc, gainDb, q, rate));
  }
}

bool GenerateSos(const Directive& d, std::vector<int32_t>& out, std::string& error) {
  double q = 0, header = 0;
  long padTo = 0;
  const bool wide = d.args.count("field") && d.args.at("field") == "coeff_32";
  if (!GetNumber(d, "q", q, error)) return false;
  if (q < 1 || q > 31 || q != std::floor(q)) {
    error = "q must be a whole number of fractional bits, 1 to 31";
    return false;
  }
  const bool hasHeader = d.args.count("header") != 0;
  if (hasHeader && !GetNumber(d, "header", header, error)) return false;
  if (d.args.count("n") && !GetCount(d, "n", padTo, error)) return false;

  std::vector<Biquad> sections;
  if (d.args.count("filters")) {
    for (const std::string& spec : Split(d.args.at("filters"), ',')) {
      if (!AppendFilter(spec, d.sampleRate, sections, error)) return false;
    }
  }
  if (d.args.count("peq")) {
    long bands = 0;
    double seed = 0;
    if (!GetCount(d, "peq", bands, error) || !GetNumber(d, "seed", seed, error)) return false;
    AppendRandomPeaking(bands, static_cast<uint64_t>(seed), d.sampleRate, sections);
  }
  if (sections.empty()) {
    error = "sos needs filters= or peq=";
    return false;
  }

  const int32_t lo = wide ? INT32_MIN : INT16_MIN;
  const int32_t hi = wide ? INT32_MAX : INT16_MAX;
  const int bits = static_cast<int>(q);
  for (const Biquad& s : sections) {
    if (hasHeader) out.push_back(static_cast<int32_t>(header));
    for (double c : {s.b0, s.b1, s.b2, s.a1, s.a2}) {
      int32_t v = 0;
      if (!ToFixed(c, bits, lo, hi, v, error)) return false;
      out.push_back(v);
    }
  }
  if (padTo > 0 && out.size() > static_cast<size_t>(padTo)) {
    error = "cascade has " + std::to_string(out.size()) + " values, more than n=" +
            std::to_string(padTo);
    return false;
  }
  out.resize(std::max(out.size(), static_cast<size_t>(padTo)), 0);
  return true;
}

// ---- Source handling -----------------------------------------------------------

bool ParseDirective(const std::string& body, double sampleRate, Directive& d,
                    std::string& error) {
  std::istringstream words(body);
  words >> d.kind;
  std::string word;
  while (words >> word) {
    const size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) {
      error = "expected key=value, got '" + word + "'";
      return false;
    }
    d.args[word.substr(0, eq)] = word.substr(eq + 1);
  }
  if (sampleRate <= 0) {
    error = "no 'sampleRate:' line above the directive";
    return false;
  }
  d.sampleRate = sampleRate;
  return true;
}

bool Expand(const Directive& d, std::string& field, std::vector<int32_t>& values,
            std::string& error) {
  if (d.kind == "brir") {
    field = "coeff_16";
    return GenerateBrir(d, values, error);
  }
  if (d.kind == "hpir") {
    field = "coeff_16";
    return GenerateHpir(d, values, error);
  }
  if (d.kind == "sos") {
    field = d.args.count("field") ? d.args.at("field") : "";
    if (field != "coeff_16" && field != "coeff_32") {
      error = "sos needs field=coeff_16 or field=coeff_32";
      return false;
    }
    return GenerateSos(d, values, error);
  }
  error = "unknown directive '" + d.kind + "' (brir, hpir, sos)";
  return false;
}

void WriteList(std::ostream& out, const std::string& indent, const std::string& field,
               const std::vector<int32_t>& values) {
  out << indent << field << ": [";
  for (size_t i = 0; i < values.size(); ++i) {
    if (i > 0) out << ",";
    if (i % kValuesPerLine == 0) {
      out << "\n" << indent << "  ";
    } else {
      out << " ";
    }
    out << values[i];
  }
  out << "\n" << indent << "]\n";
}

// Sample rate named by a `sampleRate: N` line, or 0 when the line is not one.
double SampleRateOf(const std::string& line) {
  const size_t key = line.find("sampleRate:");
  if (key == std::string::npos || line.find_first_not_of(" \t") != key) return 0;
  double rate = 0;
  std::string rest = line.substr(key + 11);
  const size_t comment = rest.find('#');
  if (comment != std::string::npos) rest.resize(comment);
  rest.erase(0, rest.find_first_not_of(" \t"));
  rest.erase(rest.find_last_not_of(" \t\r") + 1);
  return ParseNumber(rest, rate) ? rate : 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s <source.textproto> <output.textproto>\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[1]);
  if (!in) {
    std::fprintf(stderr, "%s: cannot open\n", argv[1]);
    return 1;
  }
  std::ostringstream out;
  out << "# Generated by coefgen from " << argv[1] << "; edit the source, not this file.\n";
  std::string line;
  double sampleRate = 0;
  for (int number = 1; std::getline(in, line); ++number) {
    if (double rate = SampleRateOf(line); rate > 0) sampleRate = rate;
    const size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line.compare(start, 2, "#@") != 0) {
      out << line << "\n";
      continue;
    }
    Directive d;
    std::string field, error;
    std::vector<int32_t> values;
    if (!ParseDirective(line.substr(start + 2), sampleRate, d, error) ||
        !Expand(d, field, values, error)) {
      std::fprintf(stderr, "%s:%d: %s\n", argv[1], number, error.c_str());
      return 1;
    }
    WriteList(out, line.substr(0, start), field, values);
  }
  std::ofstream file(argv[2], std::ios::binary | std::ios::trunc);
  file << out.str();
  if (!file.flush()) {
    std::fprintf(stderr, "%s: cannot write\n", argv[2]);
    return 1;
  }
  return 0;
}
