#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "Core/Fnv1a.h"
#include "MessageOf.h"
#include "TempDir.h"
#include "Tms/TmsFetcherImpl.h"

using MapServices::BoundingBoxValue;
using MapServices::TileRange;
using MapServices::Tms::impl::TmsFetcherImpl;
using TestSupport::MessageOf;

namespace {

const std::string PngTemplate = "http://h/{z}/{x}/{y}.png";

Core::Ptr<TmsFetcherImpl> Tms(const std::string& url, int32_t format = 0) {
    return Core::MakeObject<TmsFetcherImpl>(url, format);
}

} // namespace

TEST(TmsFetcher, SplitsServiceUrls) {
    const struct {
        const char *url, *host;
        int32_t port;
        bool secure;
        const char *serviceUrl, *path;
    } cases[] = {
        {"http://tiles.example.org/{z}/{x}/{y}.png", "tiles.example.org", 80, false, "http://tiles.example.org",
         "/{z}/{x}/{y}.png"},
        {"https://a.b:8443/t/{z}/{x}/{y}.png?key=1", "a.b", 8443, true, "https://a.b:8443", "/t/{z}/{x}/{y}.png?key=1"},
        {"HTTPS://A.B/x/", "A.B", 443, true, "https://A.B", "/x"},
        {"http://h:443/x", "h", 443, true, "https://h", "/x"},
        {"https://h:80/x", "h", 80, true, "https://h", "/x"},
        {"host:8080/a", "host", 8080, true, "https://host:8080", "/a"},
        {"https/a", "https", 443, true, "https://https", "/a"},
        {"http://a:b:c/x", "", 80, false, "http://", "/x"},
        {"http://h//x//y", "h", 80, false, "http://h", "/x/y"},
        // One piece: nothing is split and the defaults stay.
        {"tiles", "", 80, false, "", ""},
        {"", "", 80, false, "", ""},
    };
    for (const auto& c : cases) {
        auto fetcher = Tms(c.url);
        EXPECT_EQ(fetcher->GetHost(), c.host) << c.url;
        EXPECT_EQ(fetcher->GetPort(), c.port) << c.url;
        EXPECT_EQ(fetcher->IsSecure(), c.secure) << c.url;
        EXPECT_EQ(fetcher->GetServiceUrl(), c.serviceUrl) << c.url;
        EXPECT_EQ(fetcher->GetPath(), c.path) << c.url;
    }
    const std::pair<const char*, const char*> refused[] = {{"http://h:port/x", "invalid stoi argument"},
                                                           {"http://h:99999999999/x", "stoi argument out of range"},
                                                           {"http://h:/x", "invalid stoi argument"}};
    for (const auto& [url, text] : refused) EXPECT_EQ(MessageOf([url = url] { Tms(url); }), text) << url;
}

TEST(TmsFetcher, TemplateMarksAndVectorFormat) {
    EXPECT_EQ(Tms(PngTemplate)->BuildTilePath(3, 5, 7), "/3/5/7.png");
    EXPECT_EQ(Tms("http://h/{x}/{x}-{y}/{Z}")->BuildTilePath(1, 12, 34), "/12/12-34/{Z}");
    // Marks side by side.
    EXPECT_EQ(Tms("http://h/{x}{y}")->BuildTilePath(0, 1, 2), "/12");

    const struct {
        const char* url;
        int32_t asked, format;
        const char* extension;
    } formats[] = {
        {"http://h/{z}/{x}/{y}.png", 0, 0, ".png"},
        {"http://pbfhost/{z}/{x}/{y}", 0, 1, ".pbf"}, // "pbf" anywhere makes a vector source
        {"http://h/{z}/{x}/{y}.PBF", 1, 1, ".pbf"},   // asked for
        {"http://h/{z}/{x}/{y}.PBF", 0, 0, ".png"},   // the mark is case-sensitive
    };
    for (const auto& f : formats) {
        auto fetcher = Tms(f.url, f.asked);
        EXPECT_EQ(fetcher->GetTileFormat(), f.format) << f.url;
        EXPECT_EQ(fetcher->GetFileExtension(), f.extension) << f.url;
    }
}

TEST(TmsFetcher, RangeChecks) {
    auto fetcher = Tms(PngTemplate);
    const struct {
        int32_t z, x, y;
        bool valid;
    } cases[] = {
        {0, 0, 0, true},   {0, 1, 0, false},       {3, 7, 7, true},   {3, 8, 0, false},  {3, 0, 8, false},
        {3, -1, -5, true}, {20, 1048575, 0, true}, {21, 0, 0, false}, {-1, 0, 0, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(fetcher->IsTileValid(c.z, c.x, c.y), c.valid) << c.z << "/" << c.x << "/" << c.y;
        EXPECT_EQ(fetcher->IsTileAvailable(c.x, c.y, c.z), c.valid);
    }
    fetcher->SetMinZoom(2);
    fetcher->SetMaxZoom(31);
    EXPECT_FALSE(fetcher->IsTileValid(1, 0, 0));
    EXPECT_TRUE(fetcher->IsTileValid(31, 2147483647, 0));
}

TEST(TmsFetcher, TileGeometry) {
    auto fetcher = Tms(PngTemplate);
    const BoundingBoxValue world = fetcher->GetTileBounds(0, 0, 0);
    EXPECT_DOUBLE_EQ(world.minX, -180.0);
    EXPECT_DOUBLE_EQ(world.maxX, 180.0);
    EXPECT_NEAR(world.maxY, 85.0511287798, 1e-9);
    EXPECT_NEAR(world.minY, -85.0511287798, 1e-9);
    const BoundingBoxValue tile = fetcher->GetTileBounds(1, 0, 1);
    EXPECT_DOUBLE_EQ(tile.minX, 0.0);
    EXPECT_NEAR(tile.minY, 0.0, 1e-9);

    // The range of a tile's own box, shrunk a little, is that tile.
    const BoundingBoxValue inner = fetcher->GetTileBounds(5, 9, 4);
    const BoundingBoxValue shrunk{inner.minX + 1e-6, inner.minY + 1e-6, inner.maxX - 1e-6, inner.maxY - 1e-6};
    EXPECT_EQ(fetcher->GetTileRange(shrunk, 4), (TileRange{5, 9, 5, 9}));
    // No clamping to the grid.
    EXPECT_EQ(fetcher->GetTileRange({190.0, 0.0, 190.0, 0.0}, 0).minX, 1);
}

// The cache directory is named by the low half of the template's hash, so a query makes a cache of its own.
TEST(TmsCache, PathsAndDirectories) {
    TestSupport::TempDir dir;
    auto fetcher = Tms(PngTemplate);
    EXPECT_NE(fetcher->GetCacheHash(), Tms(PngTemplate + "?v=2")->GetCacheHash());
    const std::string root = dir.Path().string();
    fetcher->SetCacheRoot(root);
    const std::string base = root + "/TmsCache/" + std::to_string(static_cast<uint32_t>(Core::Fnv1a64(PngTemplate)));
    EXPECT_EQ(fetcher->GetCacheDirectory(), base + "/");
    EXPECT_EQ(fetcher->GetCachedTilePath(5, 17, 11), base + "/5/5_17_11.png");
    EXPECT_FALSE(std::filesystem::exists(base)) << "formatting makes nothing";
    EXPECT_FALSE(fetcher->IsTileCached(5, 17, 11));

    EXPECT_EQ(fetcher->GetMapTileDirPath(5), base + "/5");
    EXPECT_TRUE(std::filesystem::is_directory(base + "/5"));
    EXPECT_EQ(fetcher->GetCachedTileFilePath(root + "/other", 2, 1, 3), root + "/other/2/2_1_3.png");
    EXPECT_TRUE(std::filesystem::is_directory(root + "/other/2"));

    std::ofstream(base + "/5/5_17_11.png") << "";
    EXPECT_TRUE(fetcher->IsTileCached(5, 17, 11)) << "an empty file is a hit";
    fetcher->SetCacheEnabled(false);
    EXPECT_FALSE(fetcher->IsTileCached(5, 17, 11));
    EXPECT_EQ(Tms(PngTemplate)->GetCachedTilePath(1, 2, 3).rfind("/TmsCache/", 0), 0u) << "no root set";

    std::ofstream(dir.File("blocker")) << "x";
    fetcher->SetCacheRoot(dir.File("blocker"));
    const std::string text = MessageOf([&] { fetcher->GetMapTileDirPath(1); });
    EXPECT_EQ(text.rfind("create_directories: ", 0), 0u) << text;
}

TEST(TmsCache, ReadTileFile) {
    TestSupport::TempDir dir;
    const std::string content("\x89PNG\0data", 9);
    std::ofstream(dir.File("t.png"), std::ios::binary) << content;
    std::ofstream(dir.File("empty.png")) << "";
    std::filesystem::create_directory(dir.File("5_1_1.png"));
    auto bytes = TmsFetcherImpl::ReadTileFile(dir.File("t.png"));
    ASSERT_FALSE(bytes.IsNull());
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes.GetData()), bytes.GetSizeInBytes()), content);
    auto empty = TmsFetcherImpl::ReadTileFile(dir.File("empty.png"));
    ASSERT_FALSE(empty.IsNull());
    EXPECT_EQ(empty.GetSizeInBytes(), 0u);
    EXPECT_TRUE(TmsFetcherImpl::ReadTileFile(dir.File("5_1_1.png")).IsNull()) << "a directory reads as no file";
    EXPECT_TRUE(TmsFetcherImpl::ReadTileFile(dir.File("missing.png")).IsNull());
}
