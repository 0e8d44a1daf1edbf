#include <gtest/gtest.h>
#include <proj.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "BoundaryCalls.h"
#include "Tellar/Spatial/Exports.h"
#include "Tellar/Spatial/ProjectionExports.h"

using namespace Tellar::Interfaces;
using BoundaryCalls::Failure;
using BoundaryCalls::Made;
using Core::Ptr;

namespace {

Ptr<IEpsg> Epsg() {
    return Made<IEpsg>([](auto out, auto error) { TellarSpatialProjection_CreateEpsg(out, error); });
}

Ptr<ICrs> Crs(uint32_t code) {
    return Made<ICrs>([&](auto out, auto error) { Epsg()->CreateCrs(code, out, error); });
}

Ptr<ICrsTransformation> Transformation(uint32_t from, uint32_t to, bool viaWgs84 = false) {
    const auto create = viaWgs84 ? TellarSpatialProjection_CreateCrsTransformationWithIntermediateWgs84Transform
                                 : TellarSpatialProjection_CreateCrsTransformation;
    return Made<ICrsTransformation>([&](auto out, auto error) { create(Crs(from).Raw(), Crs(to).Raw(), out, error); });
}

// Points, with z or without (empty).
struct Coordinates {
    std::vector<double> x, y, z;
    void Add(double a, double b) { x.push_back(a), y.push_back(b); }
};

// PROJ straight from one EPSG code to another with x east and y north: the yardstick.
void ProjApply(uint32_t from, uint32_t to, PJ_DIRECTION direction, Coordinates& c) {
    PJ_CONTEXT* context = proj_context_create();
    proj_log_level(context, PJ_LOG_NONE);
    PJ* raw = proj_create_crs_to_crs(context, fmt::format("EPSG:{}", from).c_str(), fmt::format("EPSG:{}", to).c_str(),
                                     nullptr);
    PJ* operation = proj_normalize_for_visualization(context, raw);
    constexpr size_t d = sizeof(double);
    proj_trans_generic(operation, direction, c.x.data(), d, c.x.size(), c.y.data(), d, c.y.size(), c.z.data(), d,
                       c.z.size(), nullptr, 0, 0);
    proj_destroy(operation);
    proj_destroy(raw);
    proj_context_destroy(context);
}

constexpr double kHalfEquator = 20037508.342789244;   // x of longitude 180
constexpr double kMercatorLimit = 85.051128779806604; // latitude of y = kHalfEquator
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// `edge` and the 20 doubles on either side of it.
std::vector<double> Around(double edge) {
    std::vector<double> values{edge};
    for (double up = edge, down = edge; values.size() < 41;)
        values.insert(values.end(), {up = std::nextafter(up, HUGE_VAL), down = std::nextafter(down, -HUGE_VAL)});
    return values;
}

// Longitudes and latitudes: a grid of 1441 x 1441 over the whole range row by row, runs of +0 and
// -0, the doubles next to the edges, and points PROJ refuses or wraps.
Coordinates GeographicPoints() {
    Coordinates c;
    for (int j = 0; j <= 1440; ++j)
        for (int i = 0; i <= 1440; ++i) c.Add(-180.0 + 0.25 * i, -90.0 + 0.125 * j);
    for (double lat : {0.0, -0.0, -0.0, 0.0}) c.Add(10.0, lat);
    for (double edge : {-180.0, 0.0})
        for (double v : Around(edge)) c.Add(v, 45.5), c.Add(-v, 90.0);
    for (double edge : {-90.0, 90.0, -kMercatorLimit, kMercatorLimit, 0.0})
        for (double v : Around(edge)) c.Add(179.9, v), c.Add(-180.0, v);
    for (double lon : {180.000000001, -180.000000001, 190.0, 540.0, 1e10, 1e300, kNaN, HUGE_VAL, -HUGE_VAL})
        c.Add(lon, 50.0);
    for (double lat : {90.0000000001, -90.0000000001, 95.0, 1e300, kNaN, HUGE_VAL, -HUGE_VAL}) c.Add(10.0, lat);
    return c;
}

// Web Mercator metres: a grid of 1441 x 1441 over the square and 1.5 times as far north and south
// row by row, runs of +0 and -0, far beyond the square towards the poles, the doubles next to the
// edges, and points PROJ refuses or wraps.
Coordinates MercatorPoints() {
    Coordinates c;
    for (int j = 0; j <= 1440; ++j)
        for (int i = 0; i <= 1440; ++i) c.Add(kHalfEquator * (i / 720.0 - 1.0), 1.5 * kHalfEquator * (j / 720.0 - 1.0));
    for (double y : {0.0, -0.0, -0.0, 0.0}) c.Add(1.0e6, y);
    for (double y : {3e7, 1e8, 2.4e8, 4.5e9, 1e300, std::numeric_limits<double>::max()})
        c.Add(kHalfEquator, y), c.Add(0.0, -y);
    for (double edge : {-kHalfEquator, kHalfEquator, 0.0})
        for (double v : Around(edge)) c.Add(v, 1.0e6), c.Add(1.0e6, v);
    for (double bad : {kHalfEquator + 0.01, -kHalfEquator - 0.01, 3e7, 1e10, 1e300, kNaN, HUGE_VAL, -HUGE_VAL})
        c.Add(bad, 5e6), c.Add(0.0, bad);
    return c;
}

} // namespace

TEST(BoundingBox, StartsUnsetAndRefusesAFilledOutPointer) {
    Ptr<IBoundingBox2d> box;
    ASSERT_TRUE(TellarSpatial_CreateBoundingBox2d(box.ReceiveAddress(), nullptr));
    double v[4];
    box->GetValues(&v[0], &v[1], &v[2], &v[3]);
    EXPECT_EQ(v[0], 1.7976931348623157e308);
    EXPECT_EQ(v[1], 1.7976931348623157e308);
    EXPECT_EQ(v[2], -1.7976931348623157e308);
    EXPECT_EQ(v[3], -1.7976931348623157e308);

    IBoundingBox2d* stale = box.Raw();
    EXPECT_EQ(Failure([&](auto error) { return TellarSpatial_CreateBoundingBox2d(&stale, error); }),
              "Pointer of struct Tellar::Interfaces::IBoundingBox2d must be null in order to avoid memory leaks!");
}

TEST(Epsg, DescribesKnownCodes) {
    struct Case {
        uint32_t code;
        bool geographic;
        const char* projPart;
        const char* name;
    };
    const Case cases[] = {
        {4326, true, "+proj=longlat", "WGS 84"},
        {3857, false, "+proj=merc", "WGS 84 / Pseudo-Mercator"},
        {32632, false, "+proj=utm +zone=32", "WGS 84 / UTM zone 32N"},
        // A datum other than WGS 84 carries its shift to it.
        {31467, false, "+towgs84=", "DHDN / 3-degree Gauss-Kruger zone 3"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        Ptr<ICrs> crs = Crs(c.code);
        EXPECT_EQ(crs->GetEpsgCode(), c.code);
        EXPECT_EQ(crs->IsGeographic(), c.geographic);
        EXPECT_NE(std::string(crs->GetProj4Text()).find(c.projPart), std::string::npos) << crs->GetProj4Text();
        EXPECT_STREQ(crs->GetName(), c.name);
        EXPECT_NE(std::string(crs->GetWkt()).find("ID[\"EPSG\"," + std::to_string(c.code) + "]"), std::string::npos);
    }
}

TEST(Epsg, SameCodeSameObjectDefinitionsAndRefusals) {
    Ptr<IEpsg> epsg = Epsg();
    Ptr<ICrs> a, b, missing, fromCode, custom, bad;
    ASSERT_TRUE(epsg->CreateCrs(3857, a.ReceiveAddress(), nullptr));
    ASSERT_TRUE(epsg->CreateCrs(3857, b.ReceiveAddress(), nullptr));
    EXPECT_EQ(a.Raw(), b.Raw());
    ASSERT_TRUE(epsg->CreateCrsFromDefinition("EPSG:25832", fromCode.ReceiveAddress(), nullptr));
    EXPECT_EQ(fromCode->GetEpsgCode(), 25832u);
    ASSERT_TRUE(epsg->CreateCrsFromDefinition("+proj=merc +datum=WGS84 +type=crs", custom.ReceiveAddress(), nullptr));
    EXPECT_EQ(custom->GetEpsgCode(), 0u);

    const std::string unknown =
        Failure([&](auto error) { return epsg->CreateCrs(999999, missing.ReceiveAddress(), error); });
    EXPECT_EQ(missing.Raw(), nullptr);
    EXPECT_NE(unknown.find("Unknown EPSG code 999999"), std::string::npos) << unknown;
    EXPECT_NE(Failure([&](auto error) {
                  return epsg->CreateCrsFromDefinition("+proj=nonsense", bad.ReceiveAddress(), error);
              }).find("Invalid CRS definition"),
              std::string::npos);
}

TEST(CrsTransformation, KnownCoordinatesInEastNorthOrder) {
    struct Case {
        uint32_t from, to;
        double x, y, expectX, expectY, tolerance;
    };
    const Case cases[] = {
        // EPSG:4326 is latitude first in the registry; here longitude is x all the same.
        {4326, 3857, 10.0, 50.0, 1113194.9079327357, 6446275.841017158, 1e-6},
        {4326, 3857, -180.0, 0.0, -20037508.342789244, 0.0, 1e-6},
        // On the central meridian of UTM zone 32 the easting is the false easting and the northing
        // the meridian arc times 0.9996.
        {4326, 32632, 9.0, 0.0, 500000.0, 0.0, 1e-6},
        {4326, 32632, 9.0, 48.0, 500000.0, 5316300.2245, 1e-3},
        // ETRS89-LAEA is northing first in the registry; its false origin at 10 E, 52 N.
        {4258, 3035, 10.0, 52.0, 4321000.0, 3210000.0, 1e-6},
        {3857, 4326, 1113194.9079327357, 6446275.841017158, 10.0, 50.0, 1e-9},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " to " + std::to_string(c.to));
        auto t = Transformation(c.from, c.to);
        double point[4] = {c.x, c.y, 0.0, 42.0};
        ASSERT_TRUE(t->TransformPoints(1, point, nullptr));
        EXPECT_NEAR(point[0], c.expectX, c.tolerance);
        EXPECT_NEAR(point[1], c.expectY, c.tolerance);
        EXPECT_EQ(point[3], 42.0);
    }
}

TEST(CrsTransformation, ArraysForwardAndInverseAgreeWithPoints) {
    auto t = Transformation(3857, 4326);
    std::vector<double> x, y, points;
    for (int i = 0; i < 1000; ++i) {
        x.push_back(-2.0e7 + i * 4.0e4);
        y.push_back(-1.5e7 + i * 3.0e4);
        points.insert(points.end(), {x.back(), y.back(), 0.0, 0.0});
    }
    const std::vector<double> x0 = x, y0 = y;
    ASSERT_TRUE(t->TransformArrays(x.size(), TransformForward, x.data(), y.data(), nullptr, nullptr));
    ASSERT_TRUE(t->TransformPoints(x.size(), points.data(), nullptr));
    for (size_t i = 0; i < x.size(); ++i) {
        EXPECT_DOUBLE_EQ(x[i], points[4 * i]);
        EXPECT_DOUBLE_EQ(y[i], points[4 * i + 1]);
    }
    ASSERT_TRUE(t->TransformArrays(x.size(), TransformInverse, x.data(), y.data(), nullptr, nullptr));
    for (size_t i = 0; i < x.size(); ++i) {
        EXPECT_NEAR(x[i], x0[i], 1e-6);
        EXPECT_NEAR(y[i], y0[i], 1e-6);
    }
}

TEST(CrsTransformation, IntermediateWgs84MatchesDirectForAHelmertDatum) {
    auto direct = Transformation(31467, 3857);
    auto twoSteps = Transformation(31467, 3857, true);
    double a[4] = {3500000.0, 5500000.0, 0, 0}, b[4] = {3500000.0, 5500000.0, 0, 0};
    ASSERT_TRUE(direct->TransformPoints(1, a, nullptr));
    ASSERT_TRUE(twoSteps->TransformPoints(1, b, nullptr));
    EXPECT_NEAR(a[0], b[0], 5.0);
    EXPECT_NEAR(a[1], b[1], 5.0);
    // 9 E on the Bessel datum, a little over 100 m west of 9 E on WGS 84.
    EXPECT_NEAR(a[0], 1001875.417, 300.0);

    double x = b[0], y = b[1];
    ASSERT_TRUE(twoSteps->TransformArrays(1, TransformInverse, &x, &y, nullptr, nullptr));
    EXPECT_NEAR(x, 3500000.0, 1e-3);
    EXPECT_NEAR(y, 5500000.0, 1e-3);
}

TEST(CrsTransformation, NoOpLeavesCoordinatesAndAcceptsNullCrs) {
    Ptr<ICrsTransformation> t;
    ASSERT_TRUE(TellarSpatialProjection_CreateCrsNoOpTransformation(nullptr, Crs(4326).Raw(), t.ReceiveAddress(),
                                                                    nullptr));
    EXPECT_TRUE(t->IsNoOp());
    EXPECT_EQ(t->GetSourceCrs(), nullptr);
    EXPECT_EQ(t->GetTargetCrs()->GetEpsgCode(), 4326u);
    double p[4] = {1, 2, 3, 4}, x = 5, y = 6;
    ASSERT_TRUE(t->TransformPoints(1, p, nullptr));
    ASSERT_TRUE(t->TransformArrays(1, TransformForward, &x, &y, nullptr, nullptr));
    EXPECT_EQ((std::vector<double>{p[0], p[1], x, y}), (std::vector<double>{1, 2, 5, 6}));
}

TEST(CrsTransformation, GuardsAndUntransformablePoints) {
    Ptr<ICrsTransformation> t;
    EXPECT_EQ(Failure([&](auto error) {
                  return TellarSpatialProjection_CreateCrsTransformation(nullptr, Crs(4326).Raw(), t.ReceiveAddress(),
                                                                         error);
              }),
              "Pointer of struct Tellar::Interfaces::ICrs must not be null!");

    auto good = Transformation(4326, 3857);
    Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(good->TransformArrays(1, TransformForward, nullptr, nullptr, nullptr, error.ReceiveAddress()));
    ASSERT_TRUE(error.Raw());
    error = nullptr;
    double x = 0, y = 0;
    EXPECT_FALSE(good->TransformArrays(1, TransformDirection(7), &x, &y, nullptr, error.ReceiveAddress()));
    ASSERT_TRUE(error.Raw());

    // Beyond the pole Mercator has no answer: the point becomes infinite, the call succeeds,
    // and the next point is not affected.
    double xs[2] = {10.0, 10.0}, ys[2] = {95.0, 50.0};
    ASSERT_TRUE(good->TransformArrays(2, TransformForward, xs, ys, nullptr, nullptr));
    EXPECT_TRUE(std::isinf(xs[0]));
    EXPECT_NEAR(xs[1], 1113194.9079327357, 1e-6);
}

TEST(CrsTransformation, SeparateObjectsRunOnSeparateThreads) {
    std::vector<Ptr<ICrsTransformation>> transformations;
    for (int i = 0; i < 4; ++i) transformations.push_back(Transformation(4326, 32632));
    std::vector<std::vector<double>> results(4);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            std::vector<double> x(20000, 9.0), y(20000, 48.0);
            transformations[i]->TransformArrays(x.size(), TransformForward, x.data(), y.data(), nullptr, nullptr);
            results[i] = {x.front(), y.front(), x.back(), y.back()};
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& r : results) {
        EXPECT_NEAR(r[0], 500000.0, 1e-6);
        EXPECT_EQ(r, results[0]);
    }
}

// EPSG:4326 and EPSG:3857 are computed in closed form; every result, inside the range and outside
// it, in both directions of both transformations, with z and without, is PROJ's: to a micrometre
// and 1e-9 degrees, and in fact to the bit. A z PROJ refuses (HUGE_VAL) makes the point HUGE_VAL.
TEST(CrsTransformation, WebMercatorPairGivesPROJsResults) {
    const Coordinates geographic = GeographicPoints(), mercator = MercatorPoints();
    struct Case {
        uint32_t from, to;
        TransformDirection direction;
        const Coordinates& input;
        double tolerance;
    } cases[] = {
        {4326, 3857, TransformForward, geographic, 1e-6},
        {4326, 3857, TransformInverse, mercator, 1e-9},
        {3857, 4326, TransformForward, mercator, 1e-9},
        {3857, 4326, TransformInverse, geographic, 1e-6},
    };
    const double zs[] = {0.0, 120.5, kNaN, HUGE_VAL, -HUGE_VAL};
    for (const Case& c : cases)
        for (bool withZ : {false, true}) {
            const std::string name = fmt::format("{}-{}-{}{}", c.from, c.to, int(c.direction), withZ ? "-z" : "");
            SCOPED_TRACE(name);
            Coordinates ours = c.input;
            if (withZ)
                for (size_t i = 0; i < ours.x.size(); ++i) ours.z.push_back(zs[i % 5]);
            Coordinates theirs = ours;
            ASSERT_TRUE(Transformation(c.from, c.to)
                            ->TransformArrays(ours.x.size(), c.direction, ours.x.data(), ours.y.data(),
                                              withZ ? ours.z.data() : nullptr, nullptr));
            ProjApply(c.from, c.to, c.direction == TransformForward ? PJ_FWD : PJ_INV, theirs);

            size_t notIdentical = 0;
            double largest = 0.0;
            const auto compare = [&](double a, double b, double tolerance) {
                if (std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b))) return;
                ++notIdentical;
                largest = std::max(largest, std::isfinite(a - b) ? std::fabs(a - b) : HUGE_VAL);
                EXPECT_LE(std::fabs(a - b), tolerance) << a << " against " << b;
            };
            for (size_t i = 0; i < ours.x.size() && notIdentical < 10; ++i) {
                compare(ours.x[i], theirs.x[i], c.tolerance);
                compare(ours.y[i], theirs.y[i], c.tolerance);
                if (withZ) compare(ours.z[i], theirs.z[i], 0.0);
            }
            EXPECT_EQ(notIdentical, 0u) << "largest difference " << largest;
            RecordProperty(name, fmt::format("{} points, largest difference {:g}", ours.x.size(), largest));
        }
}
