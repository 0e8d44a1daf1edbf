#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "Common/ServiceTileFetcherBase.h"
#include "TempDir.h"
#include "TileServer.h"
#include "Tms/TmsFetcherImpl.h"

using MapServices::impl::ServiceDataRequestHandler;
using MapServices::impl::ServiceImageRequestHandler;
using Platform::Network::Http::HttpResponse;

namespace {

class BoxRequest final : public Core::ObjectImplBase<MapServices::Interfaces::IServiceRequest> {
public:
    explicit BoxRequest(uint64_t hash) : hash_(hash) {}
    MapServices::BoundingBoxValue GetBoundingBox() override { return {0, 0, 1, 1}; }
    uint64_t GetRequestHash() override { return hash_; }

private:
    uint64_t hash_;
};

// The smallest service fetcher: a fixed identity, and no requests of its own.
class ServiceFetcher final : public Core::ObjectImplBase<MapServices::impl::ServiceTileFetcherBase> {
public:
    explicit ServiceFetcher(const std::string& root) {
        cacheRoot_ = root;
        cacheFolder_ = "WmsCache";
    }
    uint64_t GetCacheHash() override { return 0xABCDEF0012345678ULL; }
    Platform::Network::Http::HttpRequest CreateTileHttpRequest(int32_t, int32_t, int32_t) override { return {}; }
    Platform::Network::Http::HttpRequest CreateServiceHttpRequest(
        const Core::Ptr<MapServices::Interfaces::IServiceRequest>&) override {
        return {};
    }
    bool IsRequestInBounds(const Core::Ptr<MapServices::Interfaces::IServiceRequest>&) override { return false; }
};

// A whole exchange with the tile server, through a tile fetcher's client.
HttpResponse Fetched(const TestSupport::TileServer& server, const std::string& kind) {
    auto source = Core::MakeObject<MapServices::Tms::impl::TmsFetcherImpl>(server.Template(kind), 0);
    return HttpResponse(source->CreateTileHttpRequest(1, 0, 1)->GetResponse(true));
}

} // namespace

TEST(ServiceCache, RequestFilesSitInTheIdentityDirectory) {
    TestSupport::TempDir dir;
    auto fetcher = Core::MakeObject<ServiceFetcher>(dir.Path().string());
    const std::string identity = dir.Path().string() + "/WmsCache/" + std::to_string(0x12345678u);
    EXPECT_EQ(fetcher->GetDirPath(), identity);
    EXPECT_TRUE(std::filesystem::is_directory(identity));
    ServiceDataRequestHandler handler{Core::MakeObject<BoxRequest>(1311768467463790320ULL), {}};
    EXPECT_EQ(fetcher->GetServiceFilePath(handler), identity + "/1311768467463790320.png");
}

TEST(ServiceCache, SavesCompleteBodiesOnly) {
    TestSupport::TileServer server;
    TestSupport::TempDir dir;
    auto fetcher = Core::MakeObject<ServiceFetcher>(dir.Path().string());
    ServiceImageRequestHandler handler{Core::MakeObject<BoxRequest>(7), {}};
    const HttpResponse response = Fetched(server, "octet");
    ASSERT_TRUE(response);

    fetcher->SaveServiceResponse(response, handler, std::string());
    std::ifstream in(fetcher->GetServiceFilePath(handler), std::ios::binary);
    EXPECT_EQ(std::string((std::istreambuf_iterator<char>(in)), {}), "/octet/1/0/1.png");
    fetcher->SaveServiceResponse(response, handler, dir.File("given.bin"));
    EXPECT_TRUE(std::filesystem::exists(dir.File("given.bin")));

    fetcher->SaveServiceResponse(HttpResponse(), handler, dir.File("none.bin"));
    EXPECT_FALSE(std::filesystem::exists(dir.File("none.bin"))) << "no response, no file";
    fetcher->SaveServiceResponse(Fetched(server, "empty"), handler, dir.File("empty.bin"));
    EXPECT_FALSE(std::filesystem::exists(dir.File("empty.bin"))) << "an empty body makes no file";
}

TEST(ServiceCache, AWriteRemovesStaleTemporaryFilesOfItsDirectory) {
    TestSupport::TileServer server;
    TestSupport::TempDir dir;
    auto fetcher = Core::MakeObject<ServiceFetcher>(dir.Path().string());
    ServiceImageRequestHandler handler{Core::MakeObject<BoxRequest>(9), {}};
    auto leave = [&](const std::string& name, std::chrono::minutes age) {
        std::ofstream(dir.File(name)) << "partial";
        std::filesystem::last_write_time(dir.File(name), std::filesystem::file_time_type::clock::now() - age);
        return dir.File(name);
    };
    const std::string stale = leave("tile.png.4242.17.part", std::chrono::minutes(61));
    const std::string fresh = leave("tile.png.4243.18.part", std::chrono::minutes(50));
    const std::string foreign = leave("notes.part", std::chrono::minutes(600));

    fetcher->SaveServiceResponse(Fetched(server, "octet"), handler, dir.File("given.bin"));
    ASSERT_TRUE(std::filesystem::exists(dir.File("given.bin")));
    EXPECT_FALSE(std::filesystem::exists(stale)) << "left by a writer that died an hour ago";
    EXPECT_TRUE(std::filesystem::exists(fresh)) << "another writer may still be busy with it";
    EXPECT_TRUE(std::filesystem::exists(foreign)) << "not a name of ours";
}
