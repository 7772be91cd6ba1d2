// Searches take the open tracks of the commit they read; the writer keeps a few commits for them,
// and lets go of those that newer ones have replaced for a while, so that the views (and the runs
// of tracks written since) do not outlive the load that made them.

#include <gtest/gtest.h>

#include <kest/analytics_db/open_tracks_snapshots.h>

namespace kest::analytics::db::test {
namespace {

using namespace std::chrono_literals;
using Clock = OpenTracksSnapshots::Clock;

const Clock::time_point kT0 = Clock::time_point{} + 1h;

std::shared_ptr<const OpenTracks> commit(std::int64_t seq)
{
    auto tracks = std::make_shared<OpenTracks>();
    tracks->seq = seq;
    return tracks;
}

TEST(OpenTracksSnapshots, ASupersededCommitGoesAfterAWhileTheLatestStays)
{
    OpenTracksSnapshots snapshots;
    snapshots.publish(commit(1), kT0);
    snapshots.publish(commit(2), kT0 + 100ms);
    const auto superseded = kT0 + 100ms;
    EXPECT_EQ(snapshots.dropSuperseded(superseded + OpenTracksSnapshots::kSupersededFor - 1ms), 0u);
    EXPECT_NE(snapshots.get(1), nullptr);
    EXPECT_EQ(snapshots.dropSuperseded(superseded + OpenTracksSnapshots::kSupersededFor), 1u);
    EXPECT_EQ(snapshots.get(1), nullptr);
    // However long nothing follows, searches find the latest.
    EXPECT_EQ(snapshots.dropSuperseded(kT0 + 24h), 0u);
    ASSERT_NE(snapshots.get(2), nullptr);
    EXPECT_EQ(snapshots.get(2)->seq, 2);

    // A failed commit is withdrawn: the one before is the latest again, and stays.
    snapshots.publish(commit(3), kT0 + 25h);
    snapshots.withdraw(3);
    EXPECT_EQ(snapshots.dropSuperseded(kT0 + 48h), 0u);
    EXPECT_NE(snapshots.get(2), nullptr);
    EXPECT_EQ(snapshots.get(3), nullptr);
}

TEST(OpenTracksSnapshots, FastCommitsKeepAFewAndASlowOneDropsThoseItOutlived)
{
    OpenTracksSnapshots snapshots;
    constexpr std::int64_t kCommits = 20;
    for (std::int64_t seq = 1; seq <= kCommits; ++seq)
        snapshots.publish(commit(seq), kT0 + seq * 1ms);
    EXPECT_EQ(snapshots.kept(), OpenTracksSnapshots::kKept);
    const std::int64_t oldest = kCommits - static_cast<std::int64_t>(OpenTracksSnapshots::kKept);
    EXPECT_EQ(snapshots.get(oldest), nullptr);
    EXPECT_NE(snapshots.get(oldest + 1), nullptr);

    // The next commit comes long after: the others were superseded long ago, the one it
    // replaces only now.
    snapshots.publish(commit(kCommits + 1), kT0 + 1h);
    EXPECT_EQ(snapshots.kept(), 2u);
    EXPECT_NE(snapshots.get(kCommits), nullptr);
    EXPECT_NE(snapshots.get(kCommits + 1), nullptr);
}

TEST(OpenTracksSnapshots, DroppedCommitsGoToTheReleaserWhichAloneFreesThem)
{
    OpenTracksSnapshots snapshots;
    std::vector<std::shared_ptr<const OpenTracks>> handedOver;
    snapshots.setReleaser([&](OpenTracksSnapshots::Dropped dropped) {
        for (auto& tracks : dropped)
            handedOver.push_back(std::move(tracks));
    });
    std::vector<std::weak_ptr<const OpenTracks>> made;
    const auto publish = [&](std::int64_t seq, Clock::time_point at) {
        auto tracks = commit(seq);
        made.push_back(tracks);
        snapshots.publish(std::move(tracks), at);
    };
    // Dropped for their number, then for their age: each exactly once, alive until released.
    const auto count = static_cast<std::int64_t>(OpenTracksSnapshots::kKept) + 3;
    for (std::int64_t seq = 1; seq <= count; ++seq)
        publish(seq, kT0 + seq * 1ms);
    ASSERT_EQ(handedOver.size(), 3u);
    EXPECT_EQ(snapshots.dropSuperseded(kT0 + 1h), OpenTracksSnapshots::kKept - 1);
    ASSERT_EQ(handedOver.size(), static_cast<std::size_t>(count - 1));
    for (std::size_t i = 0; i < handedOver.size(); ++i)
        EXPECT_EQ(handedOver[i]->seq, static_cast<std::int64_t>(i + 1));
    EXPECT_FALSE(made[0].expired());
    handedOver.clear();
    for (std::int64_t seq = 1; seq < count; ++seq)
        EXPECT_TRUE(made[seq - 1].expired()) << seq;
    EXPECT_FALSE(made[count - 1].expired());
    EXPECT_EQ(snapshots.get(count)->seq, count);
}

}  // namespace
}  // namespace kest::analytics::db::test
