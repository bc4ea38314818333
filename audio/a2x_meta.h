// a2x_meta.json is a handful of keys written by the exporter; it is searched,
// not parsed: the first occurrence of the key in double quotes, the value
// behind the next colon.
#pragma once

#include <string>

namespace le {

// atoi of the text behind the key's colon, or fallback if the key or its
// colon is absent.
int a2xMetaInt(const std::string& text, const char* key, int fallback);

// Spaces and tabs skipped: "true" 1, "false" 0, else atoi(text) != 0;
// fallback if absent.
bool a2xMetaBool(const std::string& text, const char* key, bool fallback);

// The keys that the streaming model is built from, checked.
struct A2xMeta {
  int h = 256;                           // encoder width, position table width, decoder state
  int window = -1;                       // look-ahead per attention layer, frames
  int left = -1;                         // look-back per attention layer, frames
  int layers = 6;                        // attention layers
  int windowLayers = 0, leftLayers = 0;  // the encoder's reach ahead and behind
  bool width = false;                    // the encoder is declared to have a second output
  int silencePrime = 0;                  // frames of silence to prime the decoder with
};

// The most frames window * layers or left * layers may reach: a week of
// audio at 25 frames per second.
inline constexpr int kMaxA2xReach = 1 << 24;

// Reads the keys of a non-empty a2x_meta.json. Throws the refusal sentences
// of le_a2x_create for a missing or negative window or left, a width below 1,
// fewer than 0 layers, and a reach beyond kMaxA2xReach.
A2xMeta readA2xMeta(const std::string& text);

}  // namespace le
