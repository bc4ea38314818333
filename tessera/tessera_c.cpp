// The C functions of the teeth members. They report into the caller's
// error buffer, never into a family string, and nothing thrown below them
// crosses the boundary.
#include <new>
#include <string>

#include "le/error_buffer.h"
#include "le/le_tessera.h"
#include "tessera/teeth_members.h"

struct le_tessera_carriage {
  le::TesseraCarriage carriage;
  std::string pathAnswer;  // the text of the last le_tessera_carriage_path
};

struct le_tessera_members {
  le::TesseraAttachInputs in;
};

namespace {

using le::boundary::writeErrorBuffer;

// The carriage of a bundle that could not be looked at: default names, no
// paths, and every slot missing.
le::TesseraCarriage unopenedCarriage() {
  le::TesseraCarriage c;
  c.slots = le::tesseraDefaultSlots();
  for (const char* key : le::tesseraSlotKeys()) c.missing.emplace_back(key);
  return c;
}

template <class T>
const T* dataOrNull(const std::vector<T>& v) {
  return v.empty() ? nullptr : v.data();
}

}  // namespace

extern "C" {

LE_API int le_tessera_slot_count(void) { return le::tesseraSlotCount(); }

LE_API const char* le_tessera_slot_key(int index) {
  if (index < 0 || index >= le::tesseraSlotCount()) return nullptr;
  return le::tesseraSlotKeys()[static_cast<size_t>(index)];
}

LE_API le_tessera_carriage* le_tessera_carriage_open(const char* bundle_dir) {
  if (!bundle_dir) return nullptr;
  try {
    auto* h = new le_tessera_carriage;
    try {
      h->carriage = le::tesseraCarriage(bundle_dir);
    } catch (...) {
      h->carriage = unopenedCarriage();
    }
    return h;
  } catch (...) {
    return nullptr;  // out of memory for the handle or its fallback
  }
}

LE_API void le_tessera_carriage_close(le_tessera_carriage* c) { delete c; }

LE_API int le_tessera_carriage_complete(const le_tessera_carriage* c) { return c && c->carriage.complete ? 1 : 0; }

LE_API int le_tessera_carriage_declared(const le_tessera_carriage* c) { return c && c->carriage.declared ? 1 : 0; }

LE_API const char* le_tessera_carriage_path(le_tessera_carriage* c, const char* slot_key) {
  if (!c || !slot_key) return "";
  try {
    c->pathAnswer = c->carriage.path(slot_key);
  } catch (...) {
    c->pathAnswer.clear();  // an unknown key, or no memory for the copy
  }
  return c->pathAnswer.c_str();
}

LE_API int le_tessera_carriage_missing_count(const le_tessera_carriage* c) {
  return c ? static_cast<int>(c->carriage.missing.size()) : 0;
}

LE_API const char* le_tessera_carriage_missing(const le_tessera_carriage* c, int index) {
  if (!c || index < 0 || static_cast<size_t>(index) >= c->carriage.missing.size()) return nullptr;
  return c->carriage.missing[static_cast<size_t>(index)].c_str();
}

LE_API le_tessera_members* le_tessera_members_open(const char* bundle_dir, char* err, int err_len) {
  writeErrorBuffer(err, err_len, "");
  if (!bundle_dir) {
    writeErrorBuffer(err, err_len, "le_tessera_members_open: null bundle_dir");
    return nullptr;
  }
  le::TesseraAttachInputs in;
  try {
    in = le::loadTesseraMembers(bundle_dir);
  } catch (const std::exception& e) {
    writeErrorBuffer(err, err_len, e.what());
    return nullptr;
  } catch (...) {
    writeErrorBuffer(err, err_len, "le_tessera_members_open: unknown failure");
    return nullptr;
  }
  auto* h = new (std::nothrow) le_tessera_members;
  if (!h) {
    writeErrorBuffer(err, err_len, "le_tessera_members_open: out of memory");
    return nullptr;
  }
  h->in = std::move(in);
  return h;
}

LE_API void le_tessera_members_close(le_tessera_members* m) { delete m; }

LE_API int32_t le_tessera_members_n_donors(const le_tessera_members* m) { return m ? m->in.n_donors : 0; }

LE_API const double* le_tessera_members_cent(const le_tessera_members* m) {
  return m ? dataOrNull(m->in.cent) : nullptr;
}

LE_API const double* le_tessera_members_c_canon(const le_tessera_members* m) {
  return m ? m->in.c_canon.data() : nullptr;
}

LE_API const double* le_tessera_members_aperture(const le_tessera_members* m) {
  return m ? dataOrNull(m->in.aperture) : nullptr;
}

LE_API const int32_t* le_tessera_members_stamp(const le_tessera_members* m) {
  return m ? m->in.stamp.v.data() : nullptr;
}

LE_API const uint8_t* le_tessera_members_head_pt(const le_tessera_members* m) {
  return m ? dataOrNull(m->in.head_pt) : nullptr;
}

LE_API int32_t le_tessera_members_head_pt_len(const le_tessera_members* m) {
  // The loader refuses a member beyond the 32-bit range.
  return m ? static_cast<int32_t>(m->in.head_pt.size()) : 0;
}

LE_API const char* le_tessera_members_head_json(const le_tessera_members* m) {
  return m ? m->in.head_json.c_str() : "";
}

LE_API const char* le_tessera_members_manifest_json(const le_tessera_members* m) {
  return m ? m->in.manifest_json.c_str() : "";
}

LE_API const char* le_tessera_members_bank_track_path(const le_tessera_members* m) {
  return m ? m->in.bank_track_path.c_str() : "";
}

LE_API const char* le_tessera_members_bank_container(const le_tessera_members* m) {
  return m ? m->in.bank_container.c_str() : "";
}

LE_API const char* le_tessera_members_bank_codec(const le_tessera_members* m) {
  return m ? m->in.bank_codec.c_str() : "";
}

LE_API const char* le_tessera_members_bank_pix_fmt(const le_tessera_members* m) {
  return m ? m->in.bank_pix_fmt.c_str() : "";
}

LE_API const char* le_tessera_members_bank_packing(const le_tessera_members* m) {
  return m ? m->in.bank_packing.c_str() : "";
}

LE_API int32_t le_tessera_members_band_w(const le_tessera_members* m) { return m ? m->in.band_w : 0; }

LE_API int32_t le_tessera_members_band_h(const le_tessera_members* m) { return m ? m->in.band_h : 0; }

LE_API int64_t le_tessera_members_band_bytes(const le_tessera_members* m) {
  if (!m) return 0;
  return int64_t{m->in.n_donors} * m->in.band_h * m->in.band_w * 3;
}

LE_API int le_tessera_members_reorder(const le_tessera_members* m, const uint8_t* track_frames,
                                      uint8_t* donor_frames, char* err, int err_len) {
  writeErrorBuffer(err, err_len, "");
  if (!m || !track_frames || !donor_frames) {
    writeErrorBuffer(err, err_len, "le_tessera_members_reorder: null argument");
    return 1;
  }
  try {
    le::reorderTrackToDonor(m->in, track_frames, donor_frames);
    return 0;
  } catch (const std::exception& e) {
    writeErrorBuffer(err, err_len, e.what());
  } catch (...) {
    writeErrorBuffer(err, err_len, "le_tessera_members_reorder: unknown failure");
  }
  return 1;
}

}  // extern "C"
