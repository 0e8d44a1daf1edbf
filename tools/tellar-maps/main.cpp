// tellar-maps: the command-line host of the map-service library.
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr const char* Usage = R"(usage: tellar-maps COMMAND SERVICE [options]

Commands:
  info                                         what the factory bound
  tile --zoom Z --x X --y Y -o FILE            one tile's bytes
  mosaic --zoom Z --bbox A,B,C,D [--best-effort] -o FILE.tif
  map --bbox A,B,C,D --size WxH [--time ISO] -o FILE.tif
  coverage --bbox A,B,C,D --size WxH [--time ISO] -o FILE.tif
  seed --bbox A,B,C,D --max-zoom Z [--min-zoom Z0]
  demo [-o DIR]

Service (exactly one):
  --tms URL --epsg 3857|4326
  --wms URL [--layer NAME] [--style S] [--format image/png] --epsg N
  --wmts URL --layer NAME [--style S] [--format F] [--matrix-set ID]
  --wcs URL [--coverage NAME] [--format GeoTIFF] --epsg N
  [--cache DIR] [--target-epsg N]

Options: --log FILE, --log-level N, --quiet, --png FILE, --help
)";

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(Usage, stdout);
            return 0;
        }
    }
    if (argc > 1) {
        std::fprintf(stderr, "error: the command '%s' is not available in this build yet\n", argv[1]);
        return 1;
    }
    std::fputs(Usage, stderr);
    return 2;
}
