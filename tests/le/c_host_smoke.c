/* A host written in C: opens a bundle, reads its geometry, sees a refusal. */
#include <stdio.h>
#include <string.h>

#include "le/le.h"
#include "le/le_tel.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  le_ctx* ctx = le_create(argv[1], "render", 0, NULL);
  if (!ctx) {
    fprintf(stderr, "open failed: %s\n", le_last_error());
    return 1;
  }
  int ok = le_nt(ctx) == 4 && le_width(ctx) == 64 && le_height(ctx) == 48 && le_crop(ctx) == 32 &&
           le_host_kp_rows() == 21 && strcmp(le_last_error(), "") == 0;
  le_destroy(ctx);
  ok = ok && le_create(argv[2], "render", 0, NULL) == NULL &&
       strcmp(le_last_error(), "le_create: manifest: missing key NT/frame_count") == 0;
  ok = ok && strncmp(le_tel_pending_json(), "{\"queued\":0,\"snapshot\":{\"ts\":", 29) == 0;
  printf("%s\n", ok ? "ok" : "MISMATCH");
  return ok ? 0 : 1;
}
