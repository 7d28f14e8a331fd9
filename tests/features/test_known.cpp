// The registration of well-known components that run.
#include "world.h"

namespace {

using EFStatus = CFeatureEntry::EFStatus;
using CKnownTest = CHeartTest;

TEST_F(CKnownTest, WellKnownComponentsThatRunAreTakenAsAnswered) {
    CFeatureEntry& ofVoice = *feature(control(), 1, 10);
    CFeatureEntry& ofGateway = *feature(control(), 2, 20, EFStatus::fsDeleted, {"Gateway"});
    component(control(), "Tracing", 0x33);
    platform().m_oProcesses = {{"anchor", 0x31}, {"voice", 0x32}, {"tracing", 0x34}};
    platform().fail("osLockLwtMutex", 1); // it goes on without
    control().auditComponent();
    EXPECT_EQ(transcript(), "4 31415 got Mfw Handle 0x31 for anchor\n"
                            "4 31125 adding new compstatus Anchor 0 at feature 1 10\n"
                            "4 31125 adding new compstatus Anchor 0 at feature 2 20\n"
                            "4 31129 feature (1): got reply ok from comp (Anchor) 2\n"
                            "4 31131 feature (2): got reply ok disabled comp (Anchor) 6\n"
                            "4 31415 failed to get Mfw Handle for telephony\n"
                            "4 31415 got Mfw Handle 0x32 for voice\n"
                            "4 31125 adding new compstatus Voice 0 at feature 1 10\n"
                            "4 31129 feature (1): got reply ok from comp (Voice) 2\n"
                            "4 31415 failed to get Mfw Handle for gateway\n");
    const CComponent* voice = control().findCompByName("Voice");
    ASSERT_NE(voice, nullptr);
    EXPECT_EQ(voice->m_oHeader.m_nTag, 1u);
    EXPECT_EQ(voice->m_oHeader.m_nLength, 17u);
    EXPECT_EQ(voice->m_oHeader.m_nHandle, 0x32u);
    EXPECT_EQ(voice->m_bMonitor, 1);
    EXPECT_EQ(ofVoice.m_vCompStatus.size(), 2u);
    EXPECT_EQ(ofGateway.m_vCompStatus.size(), 1u);
    control().auditComponent();
    EXPECT_EQ(control().components().m_vItems.size(), 3u);
}

} // namespace
