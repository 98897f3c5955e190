// JSON values as the bridge holds them, and reading them from untrusted text.
//
// Objects keep their members in the order they arrived (Studio's and the
// agent's order is what the agent reads back) and find them through a hash
// index, so an object of any width parses in linear time; nlohmann's own
// ordered map inserts by linear search, and a line of 200,000 members would
// stall the bridge for minutes. (A library map was tried first: tsl's
// ordered map hands out const members through its iterators, which
// nlohmann's iterators cannot work with.)
//
// Reading never throws: text that does not parse, whose top level is not an
// object or an array, that holds a NUL byte, or that nests deeper than
// `maximumDepth`, is no value at all. Copying, comparing and writing a value
// recurse, so no deeper value may ever be built. Pure functions; any thread.
#pragma once
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace jsonvalue {

// The members of a JSON object in the order they were added, found through
// a hash index once the object is wider than a handful of members (small
// objects, most of the protocol's, are searched in place and carry no
// index). nlohmann names this type's template with a comparator and an
// allocator of its own choosing; only the key and value types matter here.
template <class Key, class T, class IgnoredLess = std::less<Key>,
          class IgnoredAllocator = std::allocator<std::pair<const Key, T>>>
class OrderedMap : public std::vector<std::pair<Key, T>> {
    using Container = std::vector<std::pair<Key, T>>;
    static constexpr std::size_t indexedFrom = 16;

public:
    using key_type = Key;
    using mapped_type = T;
    using key_compare = std::less<Key>;  // lookups by the key type itself
    using typename Container::const_iterator;
    using typename Container::iterator;
    using typename Container::size_type;
    using typename Container::value_type;

    OrderedMap() = default;
    explicit OrderedMap(const IgnoredAllocator&) {}
    template <class It>
    OrderedMap(It first, It last, const IgnoredAllocator& = {}) {
        insert(first, last);
    }
    OrderedMap(std::initializer_list<value_type> members, const IgnoredAllocator& = {}) {
        insert(members.begin(), members.end());
    }

    std::pair<iterator, bool> emplace(const key_type& key, T&& value) {
        if (auto at = position(key); at != npos) return {this->begin() + at, false};
        Container::emplace_back(key, std::move(value));
        added();
        return {this->end() - 1, true};
    }
    std::pair<iterator, bool> insert(value_type&& member) { return emplace(member.first, std::move(member.second)); }
    std::pair<iterator, bool> insert(const value_type& member) { return emplace(member.first, T(member.second)); }
    template <class It>
    void insert(It first, It last) {
        for (; first != last; ++first) emplace(first->first, T(first->second));
    }

    T& operator[](const key_type& key) { return emplace(key, T{}).first->second; }
    T& at(const key_type& key) {
        auto found = find(key);
        if (found == this->end()) throw std::out_of_range("key not found");
        return found->second;
    }
    const T& at(const key_type& key) const {
        auto found = find(key);
        if (found == this->end()) throw std::out_of_range("key not found");
        return found->second;
    }
    iterator find(const key_type& key) {
        auto at = position(key);
        return at == npos ? this->end() : this->begin() + at;
    }
    const_iterator find(const key_type& key) const {
        auto at = position(key);
        return at == npos ? this->end() : this->begin() + at;
    }
    size_type count(const key_type& key) const { return position(key) == npos ? 0 : 1; }

    size_type erase(const key_type& key) {
        auto found = find(key);
        if (found == this->end()) return 0;
        erase(found);
        return 1;
    }
    iterator erase(iterator at) { return erase(at, at + 1); }
    iterator erase(iterator first, iterator last) {
        auto offset = first - this->begin();
        Container::erase(first, last);
        reindex();
        return this->begin() + offset;
    }
    void clear() noexcept {
        Container::clear();
        index_.clear();
    }

private:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    std::size_t position(const key_type& key) const {
        if (!index_.empty()) {
            auto found = index_.find(key);
            return found == index_.end() ? npos : found->second;
        }
        for (std::size_t i = 0; i < this->size(); ++i)
            if (Container::operator[](i).first == key) return i;
        return npos;
    }
    void added() {
        if (!index_.empty())
            index_.emplace(this->back().first, this->size() - 1);
        else if (this->size() > indexedFrom)
            reindex();
    }
    void reindex() {
        index_.clear();
        if (this->size() <= indexedFrom) return;
        index_.reserve(this->size());
        for (std::size_t i = 0; i < this->size(); ++i) index_.emplace(Container::operator[](i).first, i);
    }

    std::unordered_map<Key, std::size_t> index_;
};

}  // namespace jsonvalue

using Json = nlohmann::basic_json<jsonvalue::OrderedMap>;

// How deeply arrays and objects may nest in text that is read, from the
// agent and from Studio alike.
inline constexpr std::size_t maximumDepth = 512;

// Whether the text nests arrays and objects no deeper than maximumDepth.
bool nestsWithinReadingDepth(std::string_view text);

// The value of a JSON text whose top level is an object or an array, or
// nothing. Invalid UTF-8 inside strings does not parse.
std::optional<Json> parseJSON(std::string_view text);

// The object a JSON text holds, or nothing.
std::optional<Json> parseObject(std::string_view text);

// The named member of an object, or nothing (also when the value is not an
// object): the one lookup that every reader of the agent's and Studio's
// JSON uses, since neither may be trusted to send the shape asked for.
const Json* memberOf(const Json& object, std::string_view name);
Json* memberOf(Json& object, std::string_view name);
// The member when it is a string, or nothing.
const std::string* stringMember(const Json& object, std::string_view name);
// Whether the member is the boolean true.
bool isTrue(const Json& object, std::string_view name);

// Bytes as text anyone can read back: well-formed UTF-8 as it is, and each
// byte of an ill-formed sequence, and NUL (which ends a C string), as
// "\xNN", so that a path that is not
// UTF-8 (a folder named in Latin-1, say) is still shown in a form the user
// can find it by, where U+FFFD would lose it.
std::string displayable(std::string_view bytes);

// The value with every string and member name made displayable; a value
// whose strings are all UTF-8 comes back equal. Values the bridge holds nest
// no deeper than maximumDepth, which bounds the recursion.
Json displayableCopy(const Json& value);
