// Property requests as applications send them: the refusals the class makes
// from the published tables without asking the minidriver, the descriptor the
// minidriver receives for gets and sets, guards behind both buffers, and
// buffers of a request never completed that stay the minidriver's.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "fake_streaming_minidriver.h"
#include "stream_class_fixture.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

using Request = winsim::StreamClass::PropertyRequest;
using Answer = winsim::StreamClass::PropertyAnswer;
using Bytes = std::vector<uint8_t>;

const GUID kControls = {0xC0, 0, 0, {1}};
const GUID kExtras = {0xE0, 0, 0, {2}};
const GUID kUnpublished = {0xF0, 0, 0, {3}};

// Ids of kControls: 0 get and set, 40-byte record and data; 1 get only, a
// 32-byte record and no minimum data; 2 set only, 8 bytes of data.
// kExtras: 5 get and set, no minimums.
KSPROPERTY_ITEM Item(ULONG id, bool get, bool set, ULONG minProperty, ULONG minData) {
    KSPROPERTY_ITEM item{};
    item.PropertyId = id;
    item.GetSupported = get;
    item.SetSupported = set;
    item.MinProperty = minProperty;
    item.MinData = minData;
    return item;
}
const KSPROPERTY_ITEM kControlItems[] = {Item(0, true, true, 40, 40), Item(1, true, false, 32, 0),
                                         Item(2, false, true, 24, 8)};
const KSPROPERTY_ITEM kExtraItems[] = {Item(5, true, true, 24, 0)};
const KSPROPERTY_SET kSets[] = {{&kControls, 3, kControlItems, 0, nullptr},
                                {&kExtras, 1, kExtraItems, 0, nullptr}};

// One property SRB as the minidriver received it.
struct Seen {
    ULONG command = 0;
    ULONG numberOfBytesToTransfer = 0;
    STREAM_PROPERTY_DESCRIPTOR descriptor{};
    Bytes property;  // PropertyInputSize bytes
    Bytes data;      // PropertyOutputSize bytes, on arrival
};

// What the minidriver does with it: writes `writes` bytes of 0x5A into the
// data buffer and `propertyWrites` past the property record, claims
// `claims` bytes with `status`, or keeps the SRB without completing it.
struct Script {
    ULONG writes = 0;
    ULONG propertyWrites = 0;
    ULONG claims = 0;
    NTSTATUS status = STATUS_SUCCESS;
    bool complete = true;
};

class PropertyRequestTest : public StreamClassTest {
  protected:
    void SetUp() override {
        StreamClassTest::SetUp();
        fake.onSrb = [this](PHW_STREAM_REQUEST_BLOCK srb) { OnSrb(srb); };
        sc_ = std::make_unique<winsim::StreamClass>(FakeDriverEntry);
        sc_->AddDevice(pdo_);
        ASSERT_EQ(sc_->Start(), STATUS_SUCCESS);
    }
    void TearDown() override {
        sc_.reset();
        StreamClassTest::TearDown();
    }

    void OnSrb(PHW_STREAM_REQUEST_BLOCK srb) {
        if (srb->Command == SRB_INITIALIZE_DEVICE) {
            srb->CommandData.ConfigInfo->StreamDescriptorSize = sizeof(HW_STREAM_HEADER);
        } else if (srb->Command == SRB_GET_STREAM_INFO) {
            HW_STREAM_HEADER& header = srb->CommandData.StreamBuffer->StreamHeader;
            header.SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
            header.NumDevPropArrayEntries = 2;
            header.DevicePropertiesArray = const_cast<PKSPROPERTY_SET>(kSets);
        } else if (srb->Command == SRB_GET_DEVICE_PROPERTY ||
                   srb->Command == SRB_SET_DEVICE_PROPERTY) {
            const STREAM_PROPERTY_DESCRIPTOR& d = *srb->CommandData.PropertyInfo;
            const auto* property = reinterpret_cast<const uint8_t*>(d.Property);
            const auto* data = static_cast<const uint8_t*>(d.PropertyInfo);
            seen_.push_back({srb->Command, srb->NumberOfBytesToTransfer, d,
                             Bytes(property, property + d.PropertyInputSize),
                             Bytes(data, data + d.PropertyOutputSize)});
            std::memset(d.PropertyInfo, 0x5A, script_.writes);
            std::memset(reinterpret_cast<uint8_t*>(d.Property) + d.PropertyInputSize, 0x77,
                        script_.propertyWrites);
            srb->ActualBytesTransferred = script_.claims;
            if (!script_.complete) {
                kept_ = srb;
                return;
            }
            CompleteAdapterSrb(srb, script_.status);
            return;
        }
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    }

    static Request Make(const GUID& set, ULONG id, size_t extra, ULONG dataSize, Bytes data = {}) {
        Request request;
        request.set = set;
        request.id = id;
        request.propertyExtra.assign(extra, 0);
        for (size_t i = 0; i < extra; ++i) {
            request.propertyExtra[i] = static_cast<uint8_t>(0x10 + i);
        }
        request.dataSize = dataSize;
        request.data = std::move(data);
        return request;
    }

    std::unique_ptr<winsim::StreamClass> sc_;
    std::vector<Seen> seen_;
    Script script_;
    PHW_STREAM_REQUEST_BLOCK kept_ = nullptr;
};

TEST_F(PropertyRequestTest, TheClassRefusesWhatTheTablesRuleOutWithoutAskingTheMinidriver) {
    struct Case {
        const char* name;
        bool set;
        Request request;
        NTSTATUS status;
        ULONG information;
    };
    const Case cases[] = {
        {"set not published", false, Make(kUnpublished, 0, 16, 40), STATUS_PROPSET_NOT_FOUND, 0},
        {"id not in the set", false, Make(kExtras, 0, 0, 40), STATUS_NOT_FOUND, 0},
        {"get of a set-only item", false, Make(kControls, 2, 0, 8), STATUS_INVALID_DEVICE_REQUEST,
         0},
        {"set of a get-only item", true, Make(kControls, 1, 8, 0), STATUS_INVALID_DEVICE_REQUEST,
         0},
        // Before the sizes: no size is offered for what the item cannot do.
        {"unsupported size query", true, Make(kControls, 1, 0, 0), STATUS_INVALID_DEVICE_REQUEST,
         0},
        {"property record below MinProperty", false, Make(kControls, 1, 7, 0),
         STATUS_INVALID_BUFFER_SIZE, 0},
        {"record checked before data", false, Make(kControls, 0, 15, 0), STATUS_INVALID_BUFFER_SIZE,
         0},
        {"size query of a get", false, Make(kControls, 0, 16, 0), STATUS_BUFFER_OVERFLOW, 40},
        {"data below MinData", false, Make(kControls, 0, 16, 39), STATUS_BUFFER_TOO_SMALL, 0},
        {"size query of a set", true, Make(kControls, 2, 0, 0), STATUS_BUFFER_OVERFLOW, 8},
        {"set data below MinData", true, Make(kControls, 2, 0, 7, {1, 2}), STATUS_BUFFER_TOO_SMALL,
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint64_t sent = sc_->SrbsSent();
        const Answer answer =
            c.set ? sc_->SetDeviceProperty(c.request) : sc_->GetDeviceProperty(c.request);
        EXPECT_EQ(answer.status, c.status);
        EXPECT_EQ(answer.actualBytesTransferred, c.information);
        EXPECT_FALSE(answer.reachedMinidriver);
        EXPECT_TRUE(answer.data.empty());
        EXPECT_EQ(sc_->SrbsSent(), sent);
    }
    EXPECT_TRUE(seen_.empty());
}

TEST_F(PropertyRequestTest, GetsAndSetsReachTheMinidriverWithTheDescriptorTheClassBuilds) {
    // A get: the set by its place in the table, the record with its extra
    // input, a zeroed data buffer.
    script_.writes = 12;
    script_.claims = 12;
    const Answer got = sc_->GetDeviceProperty(Make(kExtras, 5, 8, 64));
    EXPECT_EQ(got.status, STATUS_SUCCESS);
    EXPECT_TRUE(got.reachedMinidriver);
    EXPECT_EQ(got.actualBytesTransferred, 12u);
    Bytes expected(64, 0);
    std::fill_n(expected.begin(), 12, 0x5A);
    EXPECT_EQ(got.data, expected);

    // A set carries its data, zero-filled to the buffer's size, and the
    // buffer's size as PropertyOutputSize too.
    script_ = {.writes = 0, .claims = 40};
    const Answer set = sc_->SetDeviceProperty(Make(kControls, 0, 16, 40, {1, 2, 3}));
    EXPECT_EQ(set.status, STATUS_SUCCESS);
    EXPECT_EQ(set.actualBytesTransferred, 40u);

    ASSERT_EQ(seen_.size(), 2u);
    for (size_t n = 0; n < 2; ++n) {
        SCOPED_TRACE(n == 0 ? "get" : "set");
        const Seen& s = seen_[n];
        const auto& header = *reinterpret_cast<const KSPROPERTY*>(s.property.data());
        EXPECT_EQ(s.command, n == 0 ? SRB_GET_DEVICE_PROPERTY : SRB_SET_DEVICE_PROPERTY);
        EXPECT_TRUE(winsim::SameGuid(header.Set, n == 0 ? kExtras : kControls));
        EXPECT_EQ(header.Id, n == 0 ? 5u : 0u);
        EXPECT_EQ(header.Flags, n == 0 ? ULONG{KSPROPERTY_TYPE_GET} : ULONG{KSPROPERTY_TYPE_SET});
        EXPECT_EQ(s.descriptor.PropertySetID, n == 0 ? 1u : 0u);
        EXPECT_EQ(s.descriptor.PropertyInputSize, n == 0 ? 32u : 40u);
        EXPECT_EQ(s.property[24], 0x10);  // the extra input follows the header
        EXPECT_EQ(s.property.back(), n == 0 ? 0x17 : 0x1F);
        EXPECT_EQ(s.descriptor.PropertyOutputSize, n == 0 ? 64u : 40u);
        EXPECT_EQ(s.numberOfBytesToTransfer, s.descriptor.PropertyOutputSize);
    }
    expected.assign(40, 0);
    expected[0] = 1, expected[1] = 2, expected[2] = 3;
    EXPECT_EQ(seen_[0].data, Bytes(64, 0));
    EXPECT_EQ(seen_[1].data, expected);

    // Without a MinData the size query is the minidriver's to answer; it
    // still gets a buffer to (not) write into.
    script_ = {.claims = 12, .status = STATUS_BUFFER_OVERFLOW};
    const Answer query = sc_->GetDeviceProperty(Make(kControls, 1, 8, 0));
    EXPECT_TRUE(query.reachedMinidriver);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.actualBytesTransferred, 12u);
    EXPECT_NE(seen_.back().descriptor.PropertyInfo, nullptr);
    EXPECT_EQ(seen_.back().descriptor.PropertyOutputSize, 0u);
}

TEST_F(PropertyRequestTest, WritesPastEitherBufferAndOverclaimedSuccessesAreFindings) {
    struct Case {
        const char* name;
        Script script;
        Request request;
        NTSTATUS status;
        const char* gist;
    };
    const Request record = Make(kControls, 0, 16, 40);
    const Case cases[] = {
        {"past the data",
         {.writes = 41, .claims = 40},
         record,
         STATUS_BUFFER_OVERFLOW,
         "wrote past the 40-byte data buffer"},
        // Id 5 has no MinData: the size query reaches the minidriver.
        {"a size query written into",
         {.writes = 4, .claims = 40, .status = STATUS_BUFFER_OVERFLOW},
         Make(kExtras, 5, 0, 0),
         STATUS_BUFFER_OVERFLOW,
         "wrote past the 0-byte data buffer"},
        {"more claimed than held",
         {.writes = 40, .claims = 41},
         record,
         STATUS_SUCCESS,
         "claims 41 bytes returned in a 40-byte data buffer"},
        {"past the property record",
         {.propertyWrites = 1, .claims = 40},
         record,
         STATUS_SUCCESS,
         "wrote past the 40-byte property record"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        script_ = c.script;
        EXPECT_EQ(sc_->GetDeviceProperty(c.request).status, c.status);
        ExpectViolation("DEVICE_PROPERTY", {c.gist, "SRB_GET_DEVICE_PROPERTY"});
    }
    // A failure may say how much it needs: no finding.
    script_ = {.claims = 400, .status = STATUS_BUFFER_TOO_SMALL};
    EXPECT_EQ(sc_->GetDeviceProperty(Make(kControls, 0, 16, 40)).status, STATUS_BUFFER_TOO_SMALL);
}

TEST_F(PropertyRequestTest, BuffersOfARequestNeverCompletedStayTheMinidriversToWriteInto) {
    script_ = {.complete = false};
    const Answer answer = sc_->SetDeviceProperty(Make(kControls, 0, 16, 40, {9}));
    EXPECT_EQ(answer.status, STATUS_IO_TIMEOUT);
    EXPECT_TRUE(answer.reachedMinidriver);
    ExpectViolation("SRB_NEVER_COMPLETED", {"SRB_SET_DEVICE_PROPERTY"});
    // Long after the class gave up, the minidriver may still use them (ASan
    // would report freed memory).
    ASSERT_NE(kept_, nullptr);
    const STREAM_PROPERTY_DESCRIPTOR& d = *kept_->CommandData.PropertyInfo;
    std::memset(d.PropertyInfo, 0x11, d.PropertyOutputSize);
    d.Property->Flags = 0;
}

// Stream properties take the same checks against the stream's own sets.
TEST_F(StreamingTest, StreamPropertiesAreCheckedAgainstTheStreamsItems) {
    PHW_STREAM_OBJECT stream = sc_->OpenStream(0, TestFormat());
    ASSERT_NE(stream, nullptr);
    const uint64_t sent = sc_->SrbsSent();
    Request unknownId;
    unknownId.set = kDroppedFramesSet;
    unknownId.id = 1;
    unknownId.dataSize = 48;
    EXPECT_EQ(sc_->GetStreamProperty(stream, unknownId).status, STATUS_NOT_FOUND);
    EXPECT_EQ(sc_->SrbsSent(), sent);

    // The record's extra input travels with it.
    Request asked = unknownId;
    asked.id = 0;
    asked.propertyExtra = {1, 2, 3, 4};
    const Answer answer = sc_->GetStreamProperty(stream, asked);
    EXPECT_EQ(answer.status, STATUS_SUCCESS);
    EXPECT_TRUE(answer.reachedMinidriver);
    EXPECT_EQ(answer.data, Bytes(48, 0x5A));
    EXPECT_EQ(state_.propertyAsked.PropertyInputSize, 28u);
    EXPECT_EQ(state_.propertyAsked.PropertySetID, 1u);
    sc_->CloseStream(stream);
}

}  // namespace
}  // namespace sctest
