#pragma once

#include <QtGlobal>

// PCM arithmetic of the intercom station: the level measure of the voice gate and the mixer.
// Pure functions on byte ranges; samples are interleaved PCM in machine byte order, 16-bit
// signed or 8-bit. Nothing here reads or writes outside the lengths it is given.
namespace Intercom {

// Frames shorter than this have no level: the measure steps through them in sixteenths
// (16-bit) or eighths (8-bit) of the frame and needs a step of at least one sample.
constexpr int kMinLevelBytes16 = 16;
constexpr int kMinLevelBytes8 = 8;

// 20 * log10(v) truncated toward zero; 0 for 0 (and for anything below). Full-scale 32767 is 90.
int vol2db(int v);

// Level in dB of a 16-bit frame of `len` bytes: the loudest of 8 samples spread evenly over it.
int level16(const char *data, int len);

// Level of an 8-bit frame: samples unsigned around 128, 8 of them, and the dB figure times 8.
int level8(const char *data, int len);

// Mixes two frames into dst, sample by sample, over dst's whole length. Where one source is
// shorter than dst its missing samples count as 0. dst may be the same memory as a source.
// Loud pairs are softened (a + b - a*b/65536 for two positive samples) but not clipped: the
// result keeps its low 16 bits, so 32767 + 32767 wraps round to -16385. That is deliberate:
// stations mix exactly like this and the wrap-around is part of their sound.
void mix16(const char *src1, int len1, const char *src2, int len2, char *dst, int dstLen);

// The same rule on 8-bit samples read as signed, with a*b/256 and the low 8 bits kept.
void mix8(const char *src1, int len1, const char *src2, int len2, char *dst, int dstLen);

} // namespace Intercom
