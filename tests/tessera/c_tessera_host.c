/* A host written in C reads a bundle's teeth members through the shared
 * library: the header compiles as C and the functions are exported. */
#include <stdio.h>
#include <string.h>

#include "le/le_tessera.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  char err[512];
  le_tessera_members* m = le_tessera_members_open(argv[1], err, (int)sizeof err);
  if (!m) {
    fprintf(stderr, "open failed: %s\n", err);
    return 1;
  }
  int ok = le_tessera_members_n_donors(m) == 5 && le_tessera_members_band_bytes(m) == 5 * 10 * 16 * 3 &&
           le_tessera_members_stamp(m)[0] == 32 && strcmp(le_tessera_members_bank_pix_fmt(m), "rgb24") == 0;
  le_tessera_members_close(m);
  le_tessera_carriage* c = le_tessera_carriage_open(argv[2]);
  ok = ok && c && le_tessera_carriage_complete(c) == 0 && le_tessera_carriage_missing_count(c) == 1 &&
       strcmp(le_tessera_carriage_missing(c, 0), "bank_track") == 0;
  le_tessera_carriage_close(c);
  ok = ok && le_tessera_members_open(argv[2], err, (int)sizeof err) == NULL &&
       strncmp(err, "missing teeth member(s): bank_track (tessera_bank.v1.mp4)", 57) == 0;
  printf("%s\n", ok ? "ok" : "MISMATCH");
  return ok ? 0 : 1;
}
