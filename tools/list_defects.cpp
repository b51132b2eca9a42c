#include "list_defects.hpp"

#include <algorithm>

#include "units.hpp"

namespace velmora::tools {

namespace {

std::string linkText(MM_TAddr link)
{
    return link == 0 ? "0" : addressText(link);
}

std::string insteadOf(const char* what, const std::string& is, const std::string& shouldBe)
{
    return std::string(what) + " is " + is + ", and should be " + shouldBe;
}

// Why a link cannot be right, in the order in which it says most.
Rule linkRule(const BlockMemory& memory, MM_TAddr link, bool goesOn)
{
    if (link == 0)
        return Rule::RunLinked;
    if (memory.blockAt(link) == memory.blocks())
        return Rule::RunInside;
    return goesOn ? Rule::RunLinked : Rule::RunOrder;
}

ListDefect nextDefect(const BlockMemory& memory, MM_TAddr at, MM_TAddr is, MM_TAddr shouldBe)
{
    return {at, linkRule(memory, is, is > at), insteadOf("the run's link forward", linkText(is), linkText(shouldBe))};
}

ListDefect backDefect(const BlockMemory& memory, MM_TAddr at, MM_TAddr is, MM_TAddr shouldBe)
{
    return {at, linkRule(memory, is, is < at), insteadOf("the run's link back", linkText(is), linkText(shouldBe))};
}

// upper: address of the next run, 0 behind the last one.
ListDefect sizeDefect(const BlockMemory& memory, MM_TAddr at, std::uint32_t is, std::uint32_t shouldBe, MM_TAddr upper)
{
    const std::uint32_t block = memory.blockAt(at);
    Rule rule = Rule::RunSize;
    if (is > memory.room(block))
        rule = Rule::RunInside;
    else if (upper != 0 && memory.endOf(block, is) >= upper)
        rule = memory.endOf(block, is) == upper ? Rule::RunMerged : Rule::RunOrder;
    return {at, rule, insteadOf("the run's number of blocks", std::to_string(is), std::to_string(shouldBe))};
}

// What a list would have below and above each block if all its links were true there. Runs may touch.
class Chains
{
public:
    explicit Chains(const BlockMemory& memory) : memory_(memory), below_(memory.blocks()), above_(memory.blocks())
    {
        for (std::uint32_t block = 0; block < memory.blocks(); ++block)
            below_[block] = withRunsBelow(block);
        for (std::uint32_t block = memory.blocks(); block-- > 0;)
            above_[block] = withRunsAbove(block);
    }

    // Blocks of this run and of those that lead to it from the list's beginning, or from it to the end; 0: there is no such
    // list.
    std::uint32_t below(std::uint32_t block) const { return below_[block]; }
    std::uint32_t above(std::uint32_t block) const { return above_[block]; }
    bool linked(std::uint32_t lower, std::uint32_t upper) const
    {
        return memory_.header(lower).next == memory_.address(upper) &&
               memory_.header(upper).back == memory_.address(lower);
    }
    // The block that a link leads to in the right direction; blocks() when it leads nowhere.
    std::uint32_t nextOf(std::uint32_t block) const
    {
        const std::uint32_t next = memory_.blockAt(memory_.header(block).next);
        return next > block ? next : memory_.blocks();
    }
    std::uint32_t backOf(std::uint32_t block) const
    {
        const std::uint32_t back = memory_.blockAt(memory_.header(block).back);
        return back < block ? back : memory_.blocks();
    }
    bool fitsBelow(std::uint32_t lower, std::uint32_t upper) const
    {
        return memory_.endOf(lower, memory_.header(lower).size) <= memory_.address(upper);
    }

private:
    bool hasSize(std::uint32_t block, const Header& header) const
    {
        return header.size != 0 && header.size <= memory_.room(block);
    }

    std::uint32_t withRunsBelow(std::uint32_t block) const
    {
        const Header header = memory_.header(block);
        if (!hasSize(block, header))
            return 0;
        if (header.back == 0)
            return header.size;
        const std::uint32_t back = backOf(block);
        if (back == memory_.blocks() || below_[back] == 0 || !linked(back, block) || !fitsBelow(back, block))
            return 0;
        return below_[back] + header.size;
    }

    std::uint32_t withRunsAbove(std::uint32_t block) const
    {
        const Header header = memory_.header(block);
        if (!hasSize(block, header))
            return 0;
        if (header.next == 0)
            return header.size;
        const std::uint32_t next = nextOf(block);
        if (next == memory_.blocks() || above_[next] == 0 || !linked(block, next) || !fitsBelow(block, next))
            return 0;
        return above_[next] + header.size;
    }

    const BlockMemory& memory_;
    std::vector<std::uint32_t> below_, above_;
};

// Looks for the one header that keeps a list from being whole. The stronger the evidence, the lower the tier.
class Suspects
{
public:
    Suspects(const BlockMemory& memory, const FreeCounts& counts)
        : memory_(memory), counts_(counts), chains_(memory), none_(memory.blocks())
    {
        for (std::uint32_t block = 0; block < none_; ++block)
            look(block, memory.header(block));
    }

    std::vector<ListDefect> unique() const
    {
        for (const auto& tier : tiers_)
            if (!tier.empty())
                return tier.size() == 1 ? tier.front() : std::vector<ListDefect>();
        return {};
    }

private:
    enum Tier { WholeList, BrokenLink, WrongSize, LoneRun, kTiers };

    void look(std::uint32_t block, const Header& header)
    {
        const MM_TAddr at = memory_.address(block);
        const std::uint32_t below = chains_.below(block), above = chains_.above(block);
        const std::uint32_t next = chains_.nextOf(block), back = chains_.backOf(block);
        if (below == counts_.free && header.next == 0)
            tiers_[WholeList].push_back(oddRuns(block));
        else if (below == counts_.free && (next == none_ || !chains_.linked(block, next)))
            suspect(BrokenLink, nextDefect(memory_, at, header.next, 0));
        if (above == counts_.free && header.back != 0 && (back == none_ || !chains_.linked(back, block)))
            suspect(BrokenLink, backDefect(memory_, at, header.back, 0));
        if (below != 0 && next != none_ && header.next != 0 && chains_.fitsBelow(block, next) &&
            below + chains_.above(next) == counts_.free && !chains_.linked(block, next) && chains_.above(next) != 0)
            suspect(BrokenLink, backDefect(memory_, header.next, memory_.header(next).back, at));
        if (above != 0 && back != none_ && header.back != 0 && chains_.fitsBelow(back, block) &&
            chains_.below(back) + above == counts_.free && !chains_.linked(back, block) && chains_.below(back) != 0)
            suspect(BrokenLink, nextDefect(memory_, header.back, memory_.header(back).next, at));
        lookAtSize(block, header, next, back);
    }

    void lookAtSize(std::uint32_t block, const Header& header, std::uint32_t next, std::uint32_t back)
    {
        std::uint32_t others = 0;
        if (header.back != 0) {
            if (back == none_ || chains_.below(back) == 0 || !chains_.linked(back, block))
                return;
            others += chains_.below(back);
        }
        if (header.next != 0) {
            if (next == none_ || chains_.above(next) == 0 || !chains_.linked(block, next))
                return;
            others += chains_.above(next);
        }
        if (others >= counts_.free)
            return;
        const std::uint32_t shouldBe = counts_.free - others;
        if (shouldBe == header.size || shouldBe > memory_.room(block) ||
            shouldBe > counts_.largest.value_or(counts_.free) ||
            (header.next != 0 && memory_.endOf(block, shouldBe) >= header.next))
            return;
        suspect(others != 0 ? WrongSize : LoneRun,
                sizeDefect(memory_, memory_.address(block), header.size, shouldBe, header.next));
    }

    void suspect(Tier tier, ListDefect defect) { tiers_[tier].push_back({std::move(defect)}); }

    // A list with as many blocks as it should have, by its last run: what is odd about it.
    std::vector<ListDefect> oddRuns(std::uint32_t block) const
    {
        std::vector<ListDefect> odd;
        std::uint32_t longest = memory_.header(block).size;
        for (Header header = memory_.header(block); header.back != 0;) {
            const MM_TAddr upper = memory_.address(block);
            block = memory_.blockAt(header.back);
            header = memory_.header(block);
            longest = std::max(longest, header.size);
            if (memory_.endOf(block, header.size) == upper)
                odd.push_back({memory_.address(block), Rule::RunMerged,
                               "the run ends at " + addressText(upper) + ", where the next one begins"});
        }
        if (counts_.largest && longest != *counts_.largest)
            odd.push_back(
                {memory_.address(block), Rule::LargestRun,
                 insteadOf("the table's largest run", std::to_string(*counts_.largest), std::to_string(longest))});
        return odd;
    }

    const BlockMemory& memory_;
    const FreeCounts& counts_;
    Chains chains_;
    std::uint32_t none_;
    std::vector<std::vector<ListDefect>> tiers_[kTiers];
};

} // namespace

std::vector<ListDefect> comparedWith(const BlockMemory& memory, const std::vector<FreeRun>& runs)
{
    std::vector<ListDefect> defects;
    for (std::size_t index = 0; index < runs.size(); ++index) {
        const MM_TAddr at = runs[index].start;
        const MM_TAddr next = index + 1 < runs.size() ? runs[index + 1].start : 0;
        const MM_TAddr back = index > 0 ? runs[index - 1].start : 0;
        const Header header = memory.header(memory.blockAt(at));
        if (header.next != next)
            defects.push_back(nextDefect(memory, at, header.next, next));
        if (header.back != back)
            defects.push_back(backDefect(memory, at, header.back, back));
        if (header.size != runs[index].blocks)
            defects.push_back(sizeDefect(memory, at, header.size, runs[index].blocks, next));
    }
    return defects;
}

std::vector<ListDefect> likelyDefects(const BlockMemory& memory, const FreeCounts& counts)
{
    return Suspects(memory, counts).unique();
}

} // namespace velmora::tools
