// The order in which entries are played.
#include "queue.h"

#include <gmock/gmock.h>

#include <algorithm>

using testing::ElementsAre;
using testing::UnorderedElementsAre;

namespace
{

Queue Of(std::initializer_list<const char*> names)
{
    Queue queue;
    for (const char* name : names)
        queue.Add({name});
    return queue;
}

std::vector<std::string> Names(const Queue& queue)
{
    std::vector<std::string> names;
    for (const Entry& entry : queue.Entries())
        names.push_back(entry.name);
    return names;
}

// The names as they are played from now on, of no more than ten entries.
std::vector<std::string> Rest(Queue& queue)
{
    std::vector<std::string> names;
    for (int i = 0; i < 10; ++i)
    {
        const size_t index = queue.Next(true);
        if (index == Queue::kNone)
            break;
        names.push_back(queue.Entries()[index].name);
    }
    return names;
}

} // namespace

TEST(PlayQueue, IsPlayedInItsOrderAndEnds)
{
    Queue queue = Of({"a", "b", "c"});
    EXPECT_EQ(queue.Current(), Queue::kNone);
    EXPECT_THAT(Rest(queue), ElementsAre("a", "b", "c"));
    EXPECT_EQ(queue.Current(), 2u); // stays at the last one
    EXPECT_FALSE(queue.HasNext());
}

TEST(PlayQueue, EmptyOneHasNothing)
{
    Queue queue;
    EXPECT_EQ(queue.Next(false), Queue::kNone);
    EXPECT_EQ(queue.Previous(), Queue::kNone);
    EXPECT_EQ(queue.Choose(0), Queue::kNone);
    EXPECT_FALSE(queue.HasNext());
    EXPECT_FALSE(queue.HasPrevious());
}

TEST(PlayQueue, GoesBack)
{
    Queue queue = Of({"a", "b", "c"});
    queue.Choose(1);
    EXPECT_TRUE(queue.HasPrevious());
    EXPECT_EQ(queue.Previous(), 0u);
    EXPECT_FALSE(queue.HasPrevious());
    EXPECT_EQ(queue.Previous(), Queue::kNone);
    EXPECT_EQ(queue.Current(), 0u);
}

TEST(PlayQueue, RepeatsAll)
{
    Queue queue = Of({"a", "b"});
    queue.SetRepeat(Repeat::All);
    queue.Choose(1);
    EXPECT_TRUE(queue.HasNext());
    EXPECT_EQ(queue.Next(true), 0u);
    EXPECT_EQ(queue.Previous(), 1u);
}

TEST(PlayQueue, RepeatsOneUntilAnotherIsAskedFor)
{
    Queue queue = Of({"a", "b"});
    queue.SetRepeat(Repeat::One);
    EXPECT_EQ(queue.Next(true), 0u);
    EXPECT_EQ(queue.Next(true), 0u);
    EXPECT_EQ(queue.Next(false), 1u);
}

TEST(PlayQueue, PlaylistGivesWayToWhatItNames)
{
    Queue queue = Of({"a", "list", "z"});
    queue.Choose(1);
    queue.Replace(1, {{"x"}, {"y"}});
    EXPECT_THAT(Names(queue), ElementsAre("a", "x", "y", "z"));
    EXPECT_EQ(queue.Current(), 1u);
    EXPECT_THAT(Rest(queue), ElementsAre("y", "z"));
}

TEST(PlayQueue, PlaylistOfNothingIsGone)
{
    Queue queue = Of({"list", "z"});
    queue.Choose(0);
    queue.Replace(0, {});
    EXPECT_EQ(queue.Current(), Queue::kNone);
    EXPECT_THAT(Rest(queue), ElementsAre("z"));
}

TEST(PlayQueue, EarlierPlaylistMovesTheCurrentEntry)
{
    Queue queue = Of({"list", "z"});
    queue.Choose(1);
    queue.Replace(0, {{"x"}, {"y"}});
    EXPECT_EQ(queue.Current(), 2u);
    EXPECT_EQ(queue.Previous(), 1u);
}

TEST(PlayQueue, LaterPlaylistLeavesTheCurrentEntry)
{
    Queue queue = Of({"a", "list"});
    queue.Choose(0);
    queue.Replace(1, {{"x"}, {"y"}});
    EXPECT_EQ(queue.Current(), 0u);
    EXPECT_THAT(Rest(queue), ElementsAre("x", "y"));
}

TEST(PlayQueue, ShuffledOnePlaysEachEntryOnce)
{
    Queue queue = Of({"a", "b", "c", "d", "e"});
    queue.SetShuffle(true);
    EXPECT_THAT(Rest(queue), UnorderedElementsAre("a", "b", "c", "d", "e"));
    EXPECT_THAT(Names(queue), ElementsAre("a", "b", "c", "d", "e")); // as it is shown
}

TEST(PlayQueue, ShuffleMixes)
{
    Queue queue = Of({"a", "b", "c", "d", "e", "f", "g", "h"});
    int inOrder = 0;
    for (int i = 0; i < 100; ++i)
    {
        Queue mixed = queue;
        mixed.SetShuffle(true);
        const std::vector<std::string> names = Rest(mixed);
        inOrder += std::is_sorted(names.begin(), names.end());
        queue.SetShuffle(true); // another state of its random numbers
        queue.SetShuffle(false);
    }
    EXPECT_LT(inOrder, 3); // of one in 40320
}

TEST(PlayQueue, ShuffleGoesOnFromTheCurrentEntry)
{
    Queue queue = Of({"a", "b", "c", "d"});
    queue.Choose(2);
    queue.SetShuffle(true);
    EXPECT_EQ(queue.Current(), 2u);
    EXPECT_THAT(Rest(queue), UnorderedElementsAre("a", "b", "d"));
}

TEST(PlayQueue, WithoutShuffleTheListGoesOnInOrder)
{
    Queue queue = Of({"a", "b", "c", "d"});
    queue.SetShuffle(true);
    queue.Choose(1);
    queue.SetShuffle(false);
    EXPECT_EQ(queue.Current(), 1u);
    EXPECT_THAT(Rest(queue), ElementsAre("c", "d"));
}

TEST(PlayQueue, AddedEntryComesLater)
{
    Queue queue = Of({"a", "b"});
    queue.SetShuffle(true);
    queue.Next(false);
    queue.Next(false);
    queue.Add({"c"});
    EXPECT_THAT(Rest(queue), ElementsAre("c"));
}

TEST(PlayQueue, ChoosingInAMixedOrderLosesNothing)
{
    for (size_t chosen = 0; chosen < 5; ++chosen)
    {
        Queue queue = Of({"a", "b", "c", "d", "e"});
        queue.SetShuffle(true);
        std::vector<std::string> played{Names(queue)[queue.Next(false)],
                                        Names(queue)[queue.Next(false)]};
        EXPECT_EQ(queue.Choose(chosen), chosen);
        EXPECT_EQ(queue.Current(), chosen);
        const std::vector<std::string> rest = Rest(queue);
        played.insert(played.end(), rest.begin(), rest.end());
        played.push_back(Names(queue)[chosen]);
        std::sort(played.begin(), played.end());
        played.erase(std::unique(played.begin(), played.end()), played.end());
        EXPECT_EQ(played.size(), 5u) << chosen;
        EXPECT_EQ(std::count(rest.begin(), rest.end(), Names(queue)[chosen]), 0) << chosen;
    }
}

TEST(PlayQueue, ChoosingAheadInAMixedOrderStillPlaysWhatLiesBetween)
{
    Queue queue = Of({"a", "b", "c", "d"});
    queue.SetShuffle(true);
    const size_t first = queue.Next(false);
    Queue ahead = queue;
    ahead.Next(false);
    ahead.Next(false);
    const size_t last = ahead.Next(false);
    queue.Choose(last);
    EXPECT_EQ(Queue(queue).Previous(), first);
    EXPECT_EQ(Rest(queue).size(), 2u);
}

TEST(PlayQueue, PlaylistInAMixedOrderStartsWithOneOfItsOwnAndPlaysAll)
{
    Queue queue = Of({"list"});
    queue.SetShuffle(true);
    queue.Next(false);
    queue.Replace(0, {{"v"}, {"w"}, {"x"}, {"y"}, {"z"}});
    const std::string first = Names(queue)[queue.Choose(queue.Current())];
    std::vector<std::string> all = Rest(queue);
    all.push_back(first);
    EXPECT_THAT(all, UnorderedElementsAre("v", "w", "x", "y", "z"));
}

TEST(PlayQueue, MixedAnewDoesNotPlayTheLastOneAgain)
{
    Queue queue = Of({"a", "b"});
    queue.SetShuffle(true);
    queue.SetRepeat(Repeat::All);
    size_t last = Queue::kNone;
    for (int i = 0; i < 200; ++i)
    {
        const size_t next = queue.Next(true);
        ASSERT_NE(next, last);
        last = next;
    }
}

TEST(PlayQueue, EntriesKeepTheirIdentity)
{
    Queue queue = Of({"list", "z"});
    const uint64_t last = queue.Entries()[1].id;
    queue.Replace(0, {{"x"}, {"y"}});
    EXPECT_EQ(queue.Entries()[2].id, last);
    EXPECT_GT(queue.Entries()[0].id, last);
    EXPECT_GT(queue.Entries()[1].id, queue.Entries()[0].id);
}
