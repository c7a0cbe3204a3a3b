#include "element_rules.h"

#include <cmath>
#include <limits>
#include <map>
#include <stdexcept>

using namespace Halide;

namespace flatmorph {

Type element_type(const std::string &name) {
    static const std::map<std::string, Type> types = {
        {"bool", UInt(1)},   {"int8", Int(8)},     {"uint8", UInt(8)},
        {"int16", Int(16)},  {"uint16", UInt(16)}, {"int32", Int(32)},
        {"uint32", UInt(32)}, {"float32", Float(32)}, {"float64", Float(64)},
    };
    auto found = types.find(name);
    if (found == types.end()) throw std::invalid_argument("unknown element type " + name);
    return found->second;
}

namespace {

Expr f64(double value) { return Internal::make_const(Float(64), value); }

Expr lowest(Type t) {
    return t.is_float() ? Internal::make_const(t, -std::numeric_limits<double>::infinity()) : t.min();
}

Expr highest(Type t) {
    return t.is_float() ? Internal::make_const(t, std::numeric_limits<double>::infinity()) : t.max();
}

}  // namespace

Expr fold_identity(Fold fold, Type t) {
    return fold == Fold::Max ? lowest(t) : highest(t);
}

Expr fold_step(Fold fold, Expr acc, Expr sample) {
    Type t = acc.type();
    if (t.is_bool()) return fold == Fold::Max ? (acc || sample) : (acc && sample);
    if (!t.is_float()) return fold == Fold::Max ? max(acc, sample) : min(acc, sample);
    Expr keep = fold == Fold::Max ? acc > sample : acc < sample;
    return strict_float(select(keep, acc, sample));
}

Expr order_sensitive(Expr sample) {
    const int bits = sample.type().bits();
    Type word = UInt(bits), signed_word = Int(bits);
    Expr b = reinterpret(word, sample), sign = Internal::make_const(word, uint64_t(1) << (bits - 1));
    Expr infinity = reinterpret(signed_word, Internal::make_const(sample.type(), INFINITY));
    // Without its sign bit the word is non-negative, so a signed comparison
    // serves (vectors compare signed words in one instruction).
    Expr nan = reinterpret(signed_word, b & ~sign) > infinity;
    return select(nan || b == sign, Internal::make_one(word), Internal::make_zero(word));
}

Expr convert_pad(Expr pad, Type t) {
    if (t == Float(64)) return pad;
    if (t == Float(32)) return cast(t, pad);
    // Truncate toward zero into the signed range of the intermediate integer;
    // anything outside it (infinities and NaN too) becomes its lowest value.
    const double range = t == UInt(32) ? std::ldexp(1.0, 63) : std::ldexp(1.0, 31);
    Expr whole = select(pad >= f64(-range) && pad < f64(range), trunc(pad), f64(-range));
    if (t == Int(32)) return strict_float(cast(t, whole));
    // Keep the low bits: the remainder modulo 2^bits, exact in float64.
    const double modulus = std::ldexp(1.0, t.bits());
    Expr low = whole - f64(modulus) * floor(whole / f64(modulus));
    if (t.is_int()) low = select(low >= f64(modulus / 2), low - f64(modulus), low);
    return strict_float(cast(t, low));
}

Expr saturating_difference(Expr a, Expr b) {
    Type t = a.type();
    if (t.is_float() || t.is_bool() || t.bits() == 32) {
        Expr hi = cast<double>(highest(t)), lo = cast<double>(lowest(t));
        Expr d = cast<double>(a) - cast<double>(b);
        d = select(d < hi, d, hi);  // NaN compares false and becomes hi
        d = select(d > lo, d, lo);
        return strict_float(cast(t, d));
    }
    Type wide = t.bits() == 8 ? Int(16) : Int(32);
    Expr d = cast(wide, a) - cast(wide, b);
    return cast(t, clamp(d, cast(wide, t.min()), cast(wide, t.max())));
}

}  // namespace flatmorph
