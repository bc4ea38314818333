/* The README's host example: open a bundle and read its geometry. */
#include <stdio.h>

#include <le/le.h>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  le_ctx* ctx = le_create(argv[1], "render", 0, NULL);
  if (!ctx) {
    fprintf(stderr, "%s\n", le_last_error());
    return 1;
  }
  printf("%d source frames, canvas %dx%d, crop %d\n", le_nt(ctx), le_width(ctx), le_height(ctx), le_crop(ctx));
  le_destroy(ctx);
  return 0;
}
