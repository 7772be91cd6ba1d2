#pragma once

// Reads JSON text straight into a described record, event by event from RapidJSON's SAX reader,
// without building a document first: the fast path of json::deserialize for request bodies.
//
// It takes only the plain forms (numbers as numbers, booleans as booleans, each key once) and
// gives up on anything else, leaving the decision to the document reader of json.h, which then
// reads the text again. So whatever it accepts, it reads exactly as the document reader would,
// and every failure message comes from the document reader.

#include <algorithm>
#include <array>
#include <bitset>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <rapidjson/reader.h>

#include "traits.h"
#include "utf8.h"

namespace kest::reflect::json::stream {

/** Receives one JSON value. Every method returns false (or null) to give up. */
class ValueSink;

/** An object or array being read: it hands out the sink of each of its values in turn. */
class Frame
{
public:
    virtual ~Frame() = default;
    /** A key of an object. */
    virtual bool key(std::string_view) { return false; }
    /** The sink for the next value. */
    virtual ValueSink* value() = 0;
    /** The value handed out by value() is complete. */
    virtual void valueDone() {}
    /** Whether this frame reads nothing, so that its contents are only counted. */
    virtual bool skips() const { return false; }
};

class ValueSink
{
public:
    virtual ~ValueSink() = default;
    virtual bool null() { return false; }
    virtual bool boolean(bool) { return false; }
    virtual bool int64(std::int64_t) { return false; }
    virtual bool uint64(std::uint64_t) { return false; }
    virtual bool real(double) { return false; }
    virtual bool string(std::string_view) { return false; }
    /** The frame that reads the object's contents. */
    virtual Frame* beginObject() { return nullptr; }
    virtual Frame* beginArray() { return nullptr; }
};

template <typename T>
class Sink;

/** Takes any value and keeps nothing: the values of keys a record does not have. */
class SkipSink final : public ValueSink, public Frame
{
public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool int64(std::int64_t) override { return true; }
    bool uint64(std::uint64_t) override { return true; }
    bool real(double) override { return true; }
    bool string(std::string_view) override { return true; }
    Frame* beginObject() override { return this; }
    Frame* beginArray() override { return this; }
    bool key(std::string_view) override { return true; }
    ValueSink* value() override { return this; }
    bool skips() const override { return true; }
};

template <typename T>
class BoundSink : public ValueSink
{
public:
    void bind(T* target) { m_target = target; }

protected:
    T* m_target = nullptr;
};

template <typename T>
class ScalarSink : public BoundSink<T>
{
    using BoundSink<T>::m_target;

public:
    bool boolean(bool value) override
    {
        if constexpr (std::same_as<T, bool>) {
            *m_target = value;
            return true;
        } else {
            return false;
        }
    }
    bool int64(std::int64_t value) override { return number(value); }
    bool uint64(std::uint64_t value) override { return number(value); }
    bool real(double value) override
    {
        if constexpr (std::is_floating_point_v<T>) {
            *m_target = static_cast<T>(value);
            return true;
        } else {
            return false;
        }
    }
    bool string(std::string_view text) override
    {
        if constexpr (detail::HasCustomString<T>) {
            return fromString(text, m_target);
        } else if constexpr (detail::DescribedEnum<T>) {
            // Names only; a number in a string is left to the document reader.
            return detail::enumFromName(text, m_target);
        } else if constexpr (std::same_as<T, std::string>) {
            m_target->assign(text);
            return true;
        } else if constexpr (std::same_as<T, QString>) {
            *m_target = QString::fromUtf8(text.data(), static_cast<int>(text.size()));
            return true;
        } else {
            return false;
        }
    }

private:
    template <typename N>
    bool number(N value)
    {
        if constexpr (detail::DescribedEnum<T> && !detail::HasCustomString<T>) {
            if constexpr (std::same_as<N, std::uint64_t>) {
                if (!std::in_range<std::int64_t>(value))
                    return false;
            }
            return detail::enumFromValue(static_cast<long long>(value), m_target);
        } else if constexpr (detail::Integer<T>) {
            if (!std::in_range<T>(value))
                return false;
            *m_target = static_cast<T>(value);
            return true;
        } else if constexpr (detail::IsDuration<T>::value) {
            if (!std::in_range<typename T::rep>(value))
                return false;
            *m_target = T(static_cast<typename T::rep>(value));
            return true;
        } else if constexpr (std::is_floating_point_v<T>) {
            *m_target = static_cast<T>(value);
            return true;
        } else {
            return false;
        }
    }
};

template <typename T>
class RecordSink : public BoundSink<T>, public Frame
{
    using BoundSink<T>::m_target;
    using Members = detail::Members<T>;
    static constexpr std::size_t kCount = boost::mp11::mp_size<Members>::value;
    static_assert(kCount <= 64, "A record read this way has at most 64 members");

    template <typename D>
    using MemberType = std::remove_cvref_t<decltype(std::declval<T&>().*D::pointer)>;
    template <typename D>
    using MemberSink = Sink<MemberType<D>>;
    using Sinks =
        boost::mp11::mp_rename<boost::mp11::mp_transform<MemberSink, Members>, std::tuple>;

public:
    Frame* beginObject() override
    {
        m_seen.reset();
        m_next = 0;
        m_current = nullptr;
        return this;
    }

    bool key(std::string_view name) override
    {
        // Writers put the keys in declaration order, so the next member is tried first.
        std::size_t index = kCount;
        if (m_next < kCount &&
            boost::mp11::mp_with_index<kCount>(m_next, [&](auto i) { return isName<i>(name); })) {
            index = m_next;
        } else {
            boost::mp11::mp_for_each<boost::mp11::mp_iota_c<kCount>>([&](auto i) {
                if (index == kCount && isName<i>(name))
                    index = i;
            });
        }
        if (index == kCount) {
            m_current = &m_skip;
            return true;
        }
        // Of a repeated key the document reader takes the first; leave that to it.
        if (m_seen.test(index))
            return false;
        m_seen.set(index);
        m_next = index + 1;
        boost::mp11::mp_with_index<kCount>(index, [this](auto i) {
            auto& sink = std::get<i>(m_sinks);
            using Descriptor = boost::mp11::mp_at_c<Members, i>;
            sink.bind(&(m_target->*Descriptor::pointer));
            m_current = &sink;
        });
        return true;
    }

    ValueSink* value() override { return m_current; }
    void valueDone() override { m_current = nullptr; }

private:
    static constexpr std::array<std::string_view, kCount> kNames = [] {
        std::array<std::string_view, kCount> names{};
        std::size_t i = 0;
        boost::mp11::mp_for_each<Members>([&](auto member) { names[i++] = member.name; });
        return names;
    }();

    /**
     * Whether `name` is member I's: with the length known when compiling, the comparison is a
     * few loads, where a call to memcmp for each key took 8 % of the service's time under ingest.
     */
    template <std::size_t I>
    static bool isName(std::string_view name)
    {
        constexpr std::string_view kName = kNames[I];
        return name.size() == kName.size() &&
               std::memcmp(name.data(), kName.data(), kName.size()) == 0;
    }

    Sinks m_sinks;
    SkipSink m_skip;
    ValueSink* m_current = nullptr;
    std::bitset<kCount> m_seen;
    std::size_t m_next = 0;
};

template <typename T>
class OptionalSink : public BoundSink<T>
{
    using BoundSink<T>::m_target;
    using Item = typename T::value_type;

public:
    bool null() override
    {
        m_target->reset();
        return true;
    }
    bool boolean(bool value) override { return inner()->boolean(value); }
    bool int64(std::int64_t value) override { return inner()->int64(value); }
    bool uint64(std::uint64_t value) override { return inner()->uint64(value); }
    bool real(double value) override { return inner()->real(value); }
    bool string(std::string_view text) override { return inner()->string(text); }
    Frame* beginObject() override { return inner()->beginObject(); }
    Frame* beginArray() override { return inner()->beginArray(); }

private:
    ValueSink* inner()
    {
        m_target->emplace();
        m_inner.bind(&**m_target);
        return &m_inner;
    }

    Sink<Item> m_inner;
};

template <typename T>
class ContainerSink : public BoundSink<T>, public Frame
{
    using BoundSink<T>::m_target;
    using Item = typename T::value_type;

public:
    Frame* beginArray() override
    {
        m_target->clear();
        // Lists at one place of a record tend to have the same length from one record to the
        // next; growing step by step would move every element several times.
        if constexpr (requires { m_target->reserve(m_lastSize); })
            m_target->reserve(m_lastSize);
        return this;
    }
    ValueSink* value() override
    {
        if constexpr (kInPlace) {
            m_inner.bind(&m_target->emplace_back());
        } else {
            m_item = Item{};
            m_inner.bind(&m_item);
        }
        return &m_inner;
    }
    void valueDone() override
    {
        if constexpr (!kInPlace)
            detail::addToContainer(*m_target, std::move(m_item));
        m_lastSize = m_target->size();
    }

private:
    // A vector's element is read where it will stay (nothing is added before it is done), instead
    // of into a spare item that is then moved in: a record with strings and lists moves slowly.
    static constexpr bool kInPlace =
        std::same_as<T, std::vector<Item>> && !std::same_as<Item, bool>;

    struct NoItem
    {};
    [[no_unique_address]] std::conditional_t<kInPlace, NoItem, Item> m_item{};
    Sink<Item> m_inner;
    std::size_t m_lastSize = 0;
};

template <typename T>
class MapSink : public BoundSink<T>, public Frame
{
    using BoundSink<T>::m_target;
    using Key = typename T::key_type;
    using Item = typename T::mapped_type;

public:
    Frame* beginObject() override
    {
        m_target->clear();
        return this;
    }
    bool key(std::string_view name) override
    {
        if constexpr (detail::HasCustomString<Key>) {
            m_key = Key{};
            return fromString(name, &m_key);
        } else {
            m_key.assign(name);
            return true;
        }
    }
    ValueSink* value() override
    {
        m_item = Item{};
        m_inner.bind(&m_item);
        return &m_inner;
    }
    void valueDone() override { (*m_target)[std::move(m_key)] = std::move(m_item); }

private:
    Key m_key{};
    Item m_item{};
    Sink<Item> m_inner;
};

/** The sink of a type, chosen in the order of the document reader's checks. */
template <typename T>
using SinkBase = std::conditional_t<
    detail::HasCustomString<T> || detail::DescribedEnum<T>, ScalarSink<T>,
    std::conditional_t<
        detail::DescribedRecord<T>, RecordSink<T>,
        std::conditional_t<
            detail::IsOptional<T>::value, OptionalSink<T>,
            std::conditional_t<
                std::same_as<T, bool> || detail::Integer<T> || std::is_floating_point_v<T> ||
                    std::same_as<T, std::string> || std::same_as<T, QString> ||
                    detail::IsDuration<T>::value,
                ScalarSink<T>,
                std::conditional_t<detail::TextKeyMap<T>, MapSink<T>, ContainerSink<T>>>>>>;

template <typename T>
class Sink final : public SinkBase<T>
{};

/** Feeds RapidJSON's events to the frames being read. */
class Handler
{
public:
    /**
     * Deeper text is left to the document reader: the parser beneath recurses once per level,
     * and stops as soon as a handler refuses.
     */
    static constexpr std::size_t kMaxDepth = 64;

    /**
     * `checksStrings`: whether each string and key is checked for well-formed UTF-8; not needed
     * where the whole text is well-formed and has no escapes, of which the strings are pieces.
     */
    explicit Handler(ValueSink* root, bool checksStrings = true)
        : m_root(root), m_checksStrings(checksStrings)
    {
        m_frames.reserve(16);
    }

    bool Null()
    {
        return scalar([](ValueSink* s) { return s->null(); });
    }
    bool Bool(bool v)
    {
        return scalar([v](ValueSink* s) { return s->boolean(v); });
    }
    bool Int(int v)
    {
        return scalar([v](ValueSink* s) { return s->int64(v); });
    }
    bool Int64(std::int64_t v)
    {
        return scalar([v](ValueSink* s) { return s->int64(v); });
    }
    bool Uint(unsigned v)
    {
        return scalar([v](ValueSink* s) { return s->uint64(v); });
    }
    bool Uint64(std::uint64_t v)
    {
        return scalar([v](ValueSink* s) { return s->uint64(v); });
    }
    bool Double(double v)
    {
        return scalar([v](ValueSink* s) { return s->real(v); });
    }
    /**
     * Numbers come as their text (the parser only checks their syntax) and are converted here,
     * as the document reader's parser would convert them: an integer that does not fit 64 bits
     * would become a double there, so it is left to it.
     */
    bool RawNumber(const char* text, rapidjson::SizeType length, bool)
    {
        const char* end = text + length;
        if (std::find_if(text, end, [](char c) { return c == '.' || c == 'e' || c == 'E'; }) !=
            end) {
            double value = 0;
            const auto [ptr, ec] = std::from_chars(text, end, value);
            return ec == std::errc() && ptr == end &&
                   scalar([value](ValueSink* s) { return s->real(value); });
        }
        if (*text == '-') {
            std::int64_t value = 0;
            const auto [ptr, ec] = std::from_chars(text, end, value);
            return ec == std::errc() && ptr == end &&
                   scalar([value](ValueSink* s) { return s->int64(value); });
        }
        std::uint64_t value = 0;
        const auto [ptr, ec] = std::from_chars(text, end, value);
        return ec == std::errc() && ptr == end &&
               scalar([value](ValueSink* s) { return s->uint64(value); });
    }
    /** Ill-formed UTF-8, even where nothing is read, is left to the document reader to name. */
    bool String(const char* text, rapidjson::SizeType length, bool)
    {
        const std::string_view view(text, length);
        return (!m_checksStrings || utf8::isValid(view)) &&
               scalar([=](ValueSink* s) { return s->string(view); });
    }
    bool Key(const char* text, rapidjson::SizeType length, bool)
    {
        const std::string_view view(text, length);
        if (m_checksStrings && !utf8::isValid(view))
            return false;
        if (m_skipDepth > 0)
            return true;
        return m_frames.back()->key(view);
    }
    bool StartObject() { return begin(&ValueSink::beginObject); }
    bool StartArray() { return begin(&ValueSink::beginArray); }
    bool EndObject(rapidjson::SizeType) { return end(); }
    bool EndArray(rapidjson::SizeType) { return end(); }

private:
    template <typename Function>
    bool scalar(Function function)
    {
        if (m_skipDepth > 0)
            return true;
        // A scalar at the top is not a document the reader takes.
        if (m_frames.empty())
            return false;
        ValueSink* sink = m_frames.back()->value();
        if (!sink || !function(sink))
            return false;
        m_frames.back()->valueDone();
        return true;
    }

    bool begin(Frame* (ValueSink::*beginFunction)())
    {
        if (m_frames.size() + m_skipDepth >= kMaxDepth)
            return false;
        // Nested values of skipped keys are counted, not stacked.
        if (m_skipDepth > 0) {
            ++m_skipDepth;
            return true;
        }
        ValueSink* sink = m_frames.empty() ? m_root : m_frames.back()->value();
        if (!sink)
            return false;
        Frame* frame = (sink->*beginFunction)();
        if (!frame)
            return false;
        if (frame->skips())
            m_skipDepth = 1;
        else
            m_frames.push_back(frame);
        return true;
    }

    bool end()
    {
        if (m_skipDepth > 0) {
            if (--m_skipDepth > 0)
                return true;
        } else {
            m_frames.pop_back();
        }
        if (!m_frames.empty())
            m_frames.back()->valueDone();
        return true;
    }

    ValueSink* m_root;
    bool m_checksStrings;
    std::vector<Frame*> m_frames;
    std::size_t m_skipDepth = 0;
};

/** The largest parse buffer an I/O thread keeps between requests. */
constexpr std::size_t kKeptBufferBytes = 4 * 1024 * 1024;

/**
 * Reads `text` (already without a byte-order mark) into `out`. False, with `out` in an
 * unspecified state, when the text is not in the plain form this reader takes.
 */
template <typename T>
bool read(std::string_view text, T* out)
{
    // The text is parsed in place, in a copy: strings are then handed over where they lie
    // instead of being copied once more. A NUL would end the text early there; such text is
    // left to the document reader.
    if (text.find('\0') != std::string_view::npos)
        return false;
    // One pass over the whole text costs less than a call for each of its many short strings.
    // An escape may decode to what is not UTF-8 (half of a surrogate pair): with escapes about,
    // each string is checked once decoded.
    const bool hasEscapes = text.find('\\') != std::string_view::npos;
    if (!hasEscapes && !utf8::isValid(text))
        return false;
    // Kept from one call to the next: a fresh buffer of a large body costs a page fault per page.
    thread_local std::string buffer;
    buffer.assign(text);
    struct Release
    {
        ~Release()
        {
            if (buffer.capacity() > kKeptBufferBytes)
                std::string().swap(buffer);
        }
    } release;
    Sink<T> root;
    root.bind(out);
    Handler handler(&root, hasEscapes);
    rapidjson::Reader reader;
    rapidjson::InsituStringStream stream(buffer.data());
    return !reader
                .Parse<rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag>(stream,
                                                                                            handler)
                .IsError();
}

}  // namespace kest::reflect::json::stream
