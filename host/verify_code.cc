#include "verify_code.h"

#include <gd.h>
#include <gdfontg.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <memory>
#include <new>
#include <stdexcept>

#include "secure_random.h"
#include "state_store.h"

namespace {

// No 0/O, 1/I/L: a user should not have to guess which one is meant.
constexpr char kAlphabet[] = "23456789ABCDEFGHJKMNPQRSTUVWXYZ";
constexpr size_t kAlphabetSize = sizeof(kAlphabet) - 1;

std::string base64(const std::string& in) {
  static const char kTable[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((in.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const unsigned v = (static_cast<unsigned char>(in[i]) << 16) |
                       (static_cast<unsigned char>(in[i + 1]) << 8) |
                       static_cast<unsigned char>(in[i + 2]);
    out.push_back(kTable[(v >> 18) & 63]);
    out.push_back(kTable[(v >> 12) & 63]);
    out.push_back(kTable[(v >> 6) & 63]);
    out.push_back(kTable[v & 63]);
  }
  if (i < in.size()) {
    unsigned v = static_cast<unsigned char>(in[i]) << 16;
    if (i + 1 < in.size()) v |= static_cast<unsigned char>(in[i + 1]) << 8;
    out.push_back(kTable[(v >> 18) & 63]);
    out.push_back(kTable[(v >> 12) & 63]);
    out.push_back(i + 1 < in.size() ? kTable[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

// --- The picture ---

// Numbers for drawing, from the secure random source, a buffer at a time.
class Dice {
 public:
  // A whole number from lo to hi, both included (hi - lo below 65536; the
  // remainder's slight bias does not matter for a picture).
  int between(int lo, int hi) {
    return lo + static_cast<int>(next16() % static_cast<unsigned>(hi - lo + 1));
  }
  // A number from lo to hi.
  double real(double lo, double hi) { return lo + (hi - lo) * next16() / 65535.0; }

 private:
  unsigned next16() {
    if (used_ + 2 > sizeof(buffer_)) {
      secureRandomBytes(buffer_, sizeof(buffer_));
      used_ = 0;
    }
    const unsigned value = static_cast<unsigned>(buffer_[used_]) << 8 | buffer_[used_ + 1];
    used_ += 2;
    return value;
  }

  unsigned char buffer_[512] = {};  // filled before the first use
  size_t used_ = sizeof(buffer_);
};

struct Rgb {
  int r;
  int g;
  int b;
};

// Every ground channel at least kGroundMin and every ink channel at most
// kInkMax keep the characters' contrast with the ground at 4.5:1 or more
// (the WCAG figure for text).
constexpr int kGroundMin = 225;
constexpr int kInkMax = 100;
constexpr double kPi = 3.14159265358979323846;

Rgb groundColour(Dice& dice) {
  return {dice.between(kGroundMin, 255), dice.between(kGroundMin, 255),
          dice.between(kGroundMin, 255)};
}

Rgb inkColour(Dice& dice) {
  return {dice.between(0, kInkMax), dice.between(0, kInkMax), dice.between(0, kInkMax)};
}

int gdColour(const Rgb& c) { return gdTrueColor(c.r, c.g, c.b); }

using GdImage = std::unique_ptr<gdImage, decltype(&gdImageDestroy)>;

GdImage newCanvas(const Rgb& ground) {
  GdImage image(gdImageCreateTrueColor(kVerifyCodeImageWidth, kVerifyCodeImageHeight),
                &gdImageDestroy);
  if (!image) throw std::bad_alloc();
  gdImageFilledRectangle(image.get(), 0, 0, kVerifyCodeImageWidth - 1, kVerifyCodeImageHeight - 1,
                         gdColour(ground));
  return image;
}

// Paints `ink` over the pixel at (x, y) with opacity `alpha` (0 to 1).
void blend(gdImagePtr image, int x, int y, const Rgb& ink, double alpha) {
  const int old = gdImageGetTrueColorPixel(image, x, y);
  auto mix = [alpha](int from, int to) {
    return static_cast<int>(std::lround(from + (to - from) * alpha));
  };
  gdImageSetPixel(
      image, x, y,
      gdTrueColor(mix(gdTrueColorGetRed(old), ink.r), mix(gdTrueColorGetGreen(old), ink.g),
                  mix(gdTrueColorGetBlue(old), ink.b)));
}

// How much of the font's pixel grid is ink at (u, v) of glyph `index`
// (pixel units, bilinear between pixel centres; 0 outside the glyph).
double coverage(const gdFont& font, int index, double u, double v) {
  u -= 0.5;
  v -= 0.5;
  const int x0 = static_cast<int>(std::floor(u));
  const int y0 = static_cast<int>(std::floor(v));
  const double fx = u - x0;
  const double fy = v - y0;
  auto at = [&](int x, int y) -> double {
    if (x < 0 || y < 0 || x >= font.w || y >= font.h) return 0.0;
    return font.data[(index * font.h + y) * font.w + x] != 0 ? 1.0 : 0.0;
  };
  return (1 - fx) * (1 - fy) * at(x0, y0) + fx * (1 - fy) * at(x0 + 1, y0) +
         (1 - fx) * fy * at(x0, y0 + 1) + fx * fy * at(x0 + 1, y0 + 1);
}

// Where and how one character goes: the centre of its ink, its enlargement
// across and up, its turn (radians) and slant.
struct Placement {
  double cx;
  double cy;
  double sx;
  double sy;
  double angle;
  double slant;
};

// The smallest box around the ink of glyph `index`, in font pixels: left,
// top, right and bottom edges (right and bottom exclusive).
struct InkBox {
  int left;
  int top;
  int right;
  int bottom;
};

InkBox inkBoxOf(const gdFont& font, int index) {
  InkBox box = {font.w, font.h, 0, 0};
  for (int y = 0; y < font.h; ++y) {
    for (int x = 0; x < font.w; ++x) {
      if (font.data[(index * font.h + y) * font.w + x] == 0) continue;
      box = {std::min(box.left, x), std::min(box.top, y), std::max(box.right, x + 1),
             std::max(box.bottom, y + 1)};
    }
  }
  return box.right > box.left ? box : InkBox{0, 0, font.w, font.h};
}

// Draws glyph `index` of `font` as `where` says, in `ink`, by mapping every
// pixel of its box back into the font's grid.
void drawGlyph(gdImagePtr image, const gdFont& font, int index, const Placement& where,
               const Rgb& ink) {
  const InkBox box = inkBoxOf(font, index);
  const double midX = (box.left + box.right) / 2.0;
  const double midY = (box.top + box.bottom) / 2.0;
  const double cosA = std::cos(where.angle);
  const double sinA = std::sin(where.angle);
  const double diagonal =
      std::hypot((box.right - box.left) * where.sx, (box.bottom - box.top) * where.sy);
  const int reach = static_cast<int>(diagonal / 2) + 2;
  const int top = std::max(0, static_cast<int>(where.cy) - reach);
  const int bottom = std::min(kVerifyCodeImageHeight - 1, static_cast<int>(where.cy) + reach);
  const int left = std::max(0, static_cast<int>(where.cx) - reach);
  const int right = std::min(kVerifyCodeImageWidth - 1, static_cast<int>(where.cx) + reach);
  for (int y = top; y <= bottom; ++y) {
    for (int x = left; x <= right; ++x) {
      const double dx = x + 0.5 - where.cx;
      const double dy = y + 0.5 - where.cy;
      const double ry = -sinA * dx + cosA * dy;
      const double rx = cosA * dx + sinA * dy - where.slant * ry;
      const double c = coverage(font, index, rx / where.sx + midX, ry / where.sy + midY);
      // Sharpen the enlarged edges.
      const double alpha = std::min(1.0, std::max(0.0, (c - 0.25) * 2.0));
      if (alpha > 0) blend(image, x, y, ink, alpha);
    }
  }
}

void drawGlyphs(gdImagePtr image, const std::string& code, Dice& dice) {
  const gdFontPtr font = gdFontGetGiant();
  const double margin = 14;
  const double advance =
      code.empty() ? 0 : (kVerifyCodeImageWidth - 2 * margin) / static_cast<double>(code.size());
  for (size_t i = 0; i < code.size(); ++i) {
    const int index = static_cast<unsigned char>(code[i]) - font->offset;
    if (index < 0 || index >= font->nchars) continue;
    Placement where;
    where.cx = margin + advance * (i + 0.5) + dice.real(-2.5, 2.5);
    where.cy = kVerifyCodeImageHeight / 2.0 + dice.real(-3, 3);
    where.sx = dice.real(2.1, 2.6);
    where.sy = dice.real(3.2, 3.9);
    where.angle = dice.real(-20, 20) * kPi / 180;
    where.slant = dice.real(-0.2, 0.2);
    drawGlyph(image, *font, index, where, inkColour(dice));
  }
}

// Faint arcs behind the characters, so that the ground is not one colour.
void drawDecoys(gdImagePtr image, Dice& dice) {
  for (int k = 0; k < 4; ++k) {
    const Rgb faint = {dice.between(150, 215), dice.between(150, 215), dice.between(150, 215)};
    gdImageArc(image, dice.between(0, kVerifyCodeImageWidth),
               dice.between(0, kVerifyCodeImageHeight), dice.between(40, 160), dice.between(20, 80),
               0, 360, gdColour(faint));
  }
}

// `count` arcs and as many lines across the whole width, in ink colours, so
// that a line cannot be told from a character by its colour.
void drawCrossings(gdImagePtr image, Dice& dice, int count) {
  for (int k = 0; k < count; ++k) {
    gdImageSetThickness(image, dice.between(1, 2));
    const int w = kVerifyCodeImageWidth;
    const int h = kVerifyCodeImageHeight;
    gdImageLine(image, dice.between(0, w / 6), dice.between(h / 5, h - h / 5),
                dice.between(w - w / 6, w), dice.between(h / 5, h - h / 5),
                gdColour(inkColour(dice)));
    const int start = dice.between(180, 220);
    gdImageArc(image, dice.between(w / 3, 2 * w / 3), dice.between(h, 2 * h),
               dice.between(w, 2 * w), dice.between(h + h / 2, 3 * h), start,
               start + dice.between(100, 140), gdColour(inkColour(dice)));
  }
  gdImageSetThickness(image, 1);
}

// The colour of `image` at (x, y) between pixels, bilinear; outside it, the
// nearest edge.
Rgb sample(gdImagePtr image, double x, double y) {
  x = std::min(std::max(x - 0.5, 0.0), kVerifyCodeImageWidth - 1.0);
  y = std::min(std::max(y - 0.5, 0.0), kVerifyCodeImageHeight - 1.0);
  const int x0 = static_cast<int>(x);
  const int y0 = static_cast<int>(y);
  const int x1 = std::min(x0 + 1, kVerifyCodeImageWidth - 1);
  const int y1 = std::min(y0 + 1, kVerifyCodeImageHeight - 1);
  const double fx = x - x0;
  const double fy = y - y0;
  const int p[4] = {
      gdImageGetTrueColorPixel(image, x0, y0), gdImageGetTrueColorPixel(image, x1, y0),
      gdImageGetTrueColorPixel(image, x0, y1), gdImageGetTrueColorPixel(image, x1, y1)};
  const double w[4] = {(1 - fx) * (1 - fy), fx * (1 - fy), (1 - fx) * fy, fx * fy};
  double r = 0, g = 0, b = 0;
  for (int k = 0; k < 4; ++k) {
    r += w[k] * gdTrueColorGetRed(p[k]);
    g += w[k] * gdTrueColorGetGreen(p[k]);
    b += w[k] * gdTrueColorGetBlue(p[k]);
  }
  return {static_cast<int>(std::lround(r)), static_cast<int>(std::lround(g)),
          static_cast<int>(std::lround(b))};
}

// A copy of `image` bent by two waves: rows shift sideways along a sine of
// their height, columns up and down along a sine of their place across.
GdImage bend(gdImagePtr image, Dice& dice) {
  GdImage out = newCanvas({255, 255, 255});
  const double ax = dice.real(1.5, 3.0);
  const double px = dice.real(20, 40);
  const double phaseX = dice.real(0, 2 * kPi);
  const double ay = dice.real(2.0, 3.5);
  const double py = dice.real(45, 90);
  const double phaseY = dice.real(0, 2 * kPi);
  for (int y = 0; y < kVerifyCodeImageHeight; ++y) {
    for (int x = 0; x < kVerifyCodeImageWidth; ++x) {
      const double sx = x + 0.5 + ax * std::sin(2 * kPi * y / px + phaseX);
      const double sy = y + 0.5 + ay * std::sin(2 * kPi * x / py + phaseY);
      gdImageSetPixel(out.get(), x, y, gdColour(sample(image, sx, sy)));
    }
  }
  return out;
}

// Single pixels in random colours over about a twelfth of the picture.
void sprinkleNoise(gdImagePtr image, Dice& dice) {
  const int count = kVerifyCodeImageWidth * kVerifyCodeImageHeight / 12;
  for (int k = 0; k < count; ++k) {
    const Rgb c = {dice.between(0, 255), dice.between(0, 255), dice.between(0, 255)};
    gdImageSetPixel(image, dice.between(0, kVerifyCodeImageWidth - 1),
                    dice.between(0, kVerifyCodeImageHeight - 1), gdColour(c));
  }
}

std::string pngOf(gdImagePtr image) {
  int size = 0;
  void* png = gdImagePngPtr(image, &size);
  if (png == nullptr) throw std::runtime_error("libgd could not write the PNG picture");
  std::string bytes(static_cast<const char*>(png), static_cast<size_t>(size));
  gdFree(png);
  return bytes;
}

}  // namespace

VerifyCodeStore& VerifyCodeStore::instance() {
  static VerifyCodeStore store;
  return store;
}

void VerifyCodeStore::issue(std::string* challengeId, std::string* code, time_t* expiresAt) {
  unsigned char raw[kCodeLength];
  std::string newCode;
  // Rejection sampling keeps every character equally likely.
  while (newCode.size() < kCodeLength) {
    secureRandomBytes(raw, sizeof(raw));
    for (unsigned char c : raw) {
      if (c >= 256 - 256 % kAlphabetSize) continue;
      if (newCode.size() < kCodeLength) newCode.push_back(kAlphabet[c % kAlphabetSize]);
    }
  }
  // 128 random bits: a collision with a live identifier is not a practical
  // event.
  const std::string id = secureRandomHex(16);
  time_t dies = 0;
  try {
    dies = stateStore()->putChallenge(id, newCode, now(), lifetime(), kKeptAfterExpiry, kMaxLive);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "issue", e);
  }
  *challengeId = id;
  *code = newCode;
  if (expiresAt != nullptr) *expiresAt = dies;
}

CodeVerdict VerifyCodeStore::redeem(const std::string& challengeId, const std::string& answer) {
  std::string code;
  ChallengeFound found = ChallengeFound::kNone;
  try {
    // Used up by the first answer, right or wrong, so a challenge cannot be
    // guessed at; taken atomically, so two gateways cannot both accept it.
    found = stateStore()->takeChallenge(challengeId, now(), &code);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "redeem", e);
  }
  if (found == ChallengeFound::kExpired) return CodeVerdict::kExpired;
  if (found != ChallengeFound::kLive) return CodeVerdict::kWrongOrUsed;
  std::string normalized = answer;
  for (char& c : normalized) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return constantTimeEqual(normalized, code) ? CodeVerdict::kAccepted : CodeVerdict::kWrongOrUsed;
}

size_t VerifyCodeStore::size() {
  try {
    return stateStore()->challengeCount();
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "size", e);
  }
}

void VerifyCodeStore::clear() {
  try {
    stateStore()->clearChallenges();
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "clear", e);
  }
}

void VerifyCodeStore::setLifetime(int seconds) {
  lifetime_.store(seconds > 0 ? seconds : kDefaultLifetime);
}

int VerifyCodeStore::lifetime() const { return lifetime_.load(); }

void VerifyCodeStore::setClock(time_t (*clock)()) {
  std::lock_guard<std::mutex> lock(mutex_);
  clock_ = clock;
}

time_t VerifyCodeStore::now() {
  std::lock_guard<std::mutex> lock(mutex_);
  return clock_ != nullptr ? clock_() : time(nullptr);
}

bool constantTimeEqual(const std::string& a, const std::string& b) {
  // Every byte of the longer text is visited whatever the contents.
  const size_t n = a.size() > b.size() ? a.size() : b.size();
  unsigned char diff = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < n; ++i) {
    const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
    const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
    diff |= static_cast<unsigned char>(x ^ y);
  }
  return diff == 0;
}

std::string verifyCodeImage(const std::string& code) {
  Dice dice;
  GdImage flat = newCanvas(groundColour(dice));
  drawDecoys(flat.get(), dice);
  drawGlyphs(flat.get(), code, dice);
  drawCrossings(flat.get(), dice, 1);
  GdImage bent = bend(flat.get(), dice);
  drawCrossings(bent.get(), dice, 1);
  sprinkleNoise(bent.get(), dice);
  return "data:image/png;base64," + base64(pngOf(bent.get()));
}
