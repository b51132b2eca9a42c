#include <velmora/error.hpp>

#include <array>
#include <cstring>

#include <velmora_mm/velmora_mm.h>

namespace velmora {

namespace {

struct Named {
    const char* name;
    const char* sentence;
};

constexpr std::array<Named, 24> kManagerCodes = {{{"ENOERR", "no error"},
                                                  {"EINVAOPT", "invalid option"},
                                                  {"EOUTOFRANGE", "outside managed memory"},
                                                  {"EWRONGADDR", "the table of fixed segments has no address"},
                                                  {"EINVASEGSIZE", "there is no room"},
                                                  {"EOUTOFFIXED", "no fixed segment left"},
                                                  {"EOUTOFFLOAT", "no float segment left"},
                                                  {"EINVASEGTYPE", "invalid segment type"},
                                                  {"ENOSEGLIST", "no list of segments"},
                                                  {"ENOMCT", "no table of fixed segments"},
                                                  {"EERR", "the table of fixed segments has no row of that name"},
                                                  {"ENOSEGBLOCK", "no segment block"},
                                                  {"ENOSEGBLK", "no segment block"},
                                                  {"ENOSIZE", "no size"},
                                                  {"EASSERT", "the kernel log names the check that failed"},
                                                  {"EINITSEM", "semaphore not initialised"},
                                                  {"EFREESEM", "semaphore not freed"},
                                                  {"EPSEM", "semaphore not taken"},
                                                  {"EVSEM", "semaphore not given back"},
                                                  {"EOPEN", "not opened"},
                                                  {"ECLOSE", "not closed"},
                                                  {"ENULL", "null"},
                                                  {"ESEGMENT", "wrong segment"},
                                                  {"EINVAARG", "invalid argument"}}};

constexpr int kFirst = static_cast<int>(Errc::NoRoom);
constexpr std::array<Named, 15> kLibraryCodes = {
    {{"NoRoom", "there is no room"},
     {"NoSuchSegment", "there is no such segment"},
     {"SegmentDiffers", "the segment is not as it was asked for"},
     {"BadName", "a segment name has one to four characters"},
     {"BadSize", "a size that no segment can have"},
     {"BadBlockSize", "the manager keeps its word only for block sizes that are powers of two from 16 on (a stack: 4)"},
     {"BadOwner", "the owner does not go with the segment's owner map"},
     {"BadRange", "past the end of the block"},
     {"StackIsLocked", "one wrong release from a stack with a lock would hold the lock for ever"},
     {"StackOverflows", "what a stack took from the heap cannot be released through it"},
     {"NotTopOfStack", "a stack takes back only what it gave last"},
     {"NotHeld", "this process does not hold the block"},
     {"NotKnown", "nothing that a process can read tells"},
     {"AlreadyStarted", "the library has segments already, and a start would take them from everybody"},
     {"HeapUnsafe", "the heap does not lie in free memory only: a gap beside a segment is smaller than its blocks"}}};

constexpr std::array<const char*, MM_CMD_COUNT> kCommandNames = {
    "MM_CMD_LIB_ENTRY",       "MM_CMD_CREATE_SEGMENT",  "MM_CMD_MALLOC",        "MM_CMD_FREE",
    "MM_CMD_MEMSET",          "MM_CMD_DELETE_SEGMENT",  "MM_CMD_ADD_SEGMENT",   "MM_CMD_CLEAR_SEGMENT",
    "MM_CMD_ENTRY",           "MM_CMD_COLLECT_GARBAGE", "MM_CMD_CHECK_SEGMENT", "MM_CMD_DISPLAY_MST",
    "MM_CMD_QUERY_PHYS_ADDR", "MM_CMD_GET_MST",         "MM_CMD_GET_MCT"};

// The row of a code, null where there is none.
template <std::size_t Size> const Named* rowOf(const std::array<Named, Size>& table, int index)
{
    return index >= 0 && static_cast<std::size_t>(index) < Size ? &table[static_cast<std::size_t>(index)] : nullptr;
}

class ManagerCategory : public std::error_category
{
public:
    const char* name() const noexcept override { return "velmora-manager"; }
    std::string message(int code) const override
    {
        const Named* const row = rowOf(kManagerCodes, code);
        return "the manager answered " + std::to_string(code) +
               (row != nullptr ? std::string(" (") + row->name + "): " + row->sentence : "");
    }
    std::error_condition default_error_condition(int code) const noexcept override
    {
        if (code == MM_EINVASEGSIZE)
            return std::errc::not_enough_memory;
        return {code, *this};
    }
};

class LibraryCategory : public std::error_category
{
public:
    const char* name() const noexcept override { return "velmora"; }
    std::string message(int code) const override
    {
        const Named* const row = rowOf(kLibraryCodes, code - kFirst);
        return row != nullptr ? row->sentence : std::to_string(code);
    }
    std::error_condition default_error_condition(int code) const noexcept override
    {
        switch (static_cast<Errc>(code)) {
        case Errc::NoRoom: return std::errc::not_enough_memory;
        case Errc::BadName:
        case Errc::BadSize:
        case Errc::BadBlockSize:
        case Errc::BadOwner:
        case Errc::BadRange: return std::errc::invalid_argument;
        default: return {code, *this};
        }
    }
};

std::string describe(const std::string& command, int result)
{
    const std::string name = codeName(result);
    if (result < 0)
        return command + ": " + name + ": " + std::generic_category().message(-result);
    const std::string number = std::to_string(result);
    std::string text = command + ": the manager answered " + (name == number ? number : number + " (" + name + ")");
    if (result == MM_EASSERT)
        text += "; the kernel log names the check that failed";
    if (result == MM_EINVASEGSIZE)
        text += "; there is no room";
    return text;
}

} // namespace

const std::error_category& managerCategory() noexcept
{
    static const ManagerCategory category;
    return category;
}

const std::error_category& libraryCategory() noexcept
{
    static const LibraryCategory category;
    return category;
}

std::error_code make_error_code(Errc code) noexcept
{
    return {static_cast<int>(code), libraryCategory()};
}

std::error_code codeOf(int result) noexcept
{
    if (result == 0)
        return {};
    if (result < 0)
        return {-result, std::generic_category()};
    return {result, result < kFirst ? managerCategory() : libraryCategory()};
}

int resultOf(const std::error_code& code) noexcept
{
    const bool own = code.category() == managerCategory() || code.category() == libraryCategory();
    return own ? code.value() : -code.value();
}

std::string codeName(int result)
{
    const char* name = nullptr;
    if (result < 0)
        name = strerrorname_np(-result);
    else if (const Named* const row =
                 result < kFirst ? rowOf(kManagerCodes, result) : rowOf(kLibraryCodes, result - kFirst))
        name = row->name;
    return name != nullptr ? name : std::to_string(result);
}

std::string commandName(std::uint32_t number)
{
    const std::uint32_t index = number - MM_CMD_FIRST;
    return index < kCommandNames.size() ? kCommandNames[index] : std::to_string(number);
}

Error::Error(const std::string& command, int result)
    : std::runtime_error(describe(command, result)), code_(codeOf(result)),
      command_(std::make_shared<const std::string>(command))
{
}

Error::Error(const std::string& command, Errc code, const std::string& more)
    : std::runtime_error(command + ": " + make_error_code(code).message() + (more.empty() ? "" : ": " + more)),
      code_(code), command_(std::make_shared<const std::string>(command))
{
}

Error::Error(int result, const std::string& sentence)
    : std::runtime_error(sentence), code_(codeOf(result)), command_(std::make_shared<const std::string>())
{
}

} // namespace velmora
