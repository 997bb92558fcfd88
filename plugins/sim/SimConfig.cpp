// Reading a model from a JSON file, with the line of every key and value, so that each
// error names the exact line it is on.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "AudioRequest.h"
#include "SimModel.h"

namespace hxf_sim {

namespace {

using nlohmann::json;

// A problem with the line it is on.
struct ConfigError {
  size_t line;
  std::string problem;
};

struct Member;

// A JSON value and the line it starts on. Objects keep their members in file order.
struct Node {
  size_t line = 1;
  json scalar;  // null, bool, number or string
  bool is_object = false;
  bool is_array = false;
  std::vector<Member> members;
  std::vector<Node> items;

  const Member* Find(const std::string& key) const;
  std::string Dump() const {
    return is_object ? "an object" : is_array ? "an array" : scalar.dump();
  }
};

struct Member {
  std::string key;
  size_t line;
  Node value;
};

const Member* Node::Find(const std::string& key) const {
  for (const Member& member : members) {
    if (member.key == key) return &member;
  }
  return nullptr;
}

// Where the parser is in the text: the line of the last non-blank character it has read.
// When the parser reports a key or a value, that character ends it, so it is its line.
struct Lines {
  size_t current = 1;
  size_t last_token = 1;
};

// The parser reads the text through this iterator, which counts lines as it goes.
class CountingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator(const char* at, Lines* lines) : at_(at), lines_(lines) {}
  reference operator*() const { return *at_; }
  CountingIterator& operator++() {
    if (*at_ == '\n') {
      ++lines_->current;
    } else if (*at_ != ' ' && *at_ != '\t' && *at_ != '\r') {
      lines_->last_token = lines_->current;
    }
    ++at_;
    return *this;
  }
  bool operator==(const CountingIterator& other) const { return at_ == other.at_; }
  bool operator!=(const CountingIterator& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  Lines* lines_;
};

// Builds the Node tree from the parser's events; refuses a key met twice in one object.
class TreeBuilder {
 public:
  static constexpr size_t kMaxDepth = 100;  // objects and arrays, counting the outermost

  TreeBuilder(const std::string& text, const Lines& lines) : text_(text), lines_(lines) {}

  bool null() { return Scalar(nullptr); }
  bool boolean(bool value) { return Scalar(value); }
  bool number_integer(json::number_integer_t value) { return Scalar(value); }
  bool number_unsigned(json::number_unsigned_t value) { return Scalar(value); }
  bool number_float(json::number_float_t value, const std::string&) { return Scalar(value); }
  bool string(std::string& value) { return Scalar(value); }
  bool binary(json::binary_t&) { return false; }  // not produced by the text parser
  bool start_object(std::size_t) { return Deeper() && (Open().is_object = true); }
  bool start_array(std::size_t) { return Deeper() && (Open().is_array = true); }
  bool end_object() { return Close(); }
  bool end_array() { return Close(); }
  bool key(std::string& key) {
    Node& object = *open_.back();
    if (const Member* first = object.Find(key)) {
      error_ = ConfigError{lines_.last_token, "duplicate key \"" + key + "\" (first on line " +
                                                  std::to_string(first->line) + ")"};
      return false;
    }
    object.members.push_back(Member{key, lines_.last_token, Node{}});
    return true;
  }
  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& e) {
    // `position` counts the characters read; the last of them is where parsing stopped.
    const size_t stop = std::min(position == 0 ? 0 : position - 1, text_.size());
    error_ = ConfigError{
        1 + static_cast<size_t>(std::count(text_.begin(), text_.begin() + stop, '\n')), e.what()};
    return false;
  }

  const Node& Root() const { return root_; }
  const std::optional<ConfigError>& Error() const { return error_; }

 private:
  // The node the next value fills: the root, the next item of an array, or the value of
  // the key just read.
  Node& Next() {
    if (open_.empty()) return root_;
    Node& container = *open_.back();
    if (container.is_array) return container.items.emplace_back();
    return container.members.back().value;
  }
  template <typename T>
  bool Scalar(T&& value) {
    Node& node = Next();
    node.line = lines_.last_token;
    node.scalar = std::forward<T>(value);
    return true;
  }
  // Refused before it is built: reading and releasing the tree recurse once per level, and
  // a file nested some ten thousand levels deep would overflow the stack.
  bool Deeper() {
    if (open_.size() < kMaxDepth) return true;
    error_ = ConfigError{lines_.last_token,
                         "nested deeper than " + std::to_string(kMaxDepth) + " levels"};
    return false;
  }
  Node& Open() {
    // Safe to keep: a container's vector only grows while it is the innermost one open.
    Node& node = Next();
    node.line = lines_.last_token;
    open_.push_back(&node);
    return node;
  }
  bool Close() {
    open_.pop_back();
    return true;
  }

  const std::string& text_;
  const Lines& lines_;
  Node root_;
  std::vector<Node*> open_;
  std::optional<ConfigError> error_;
};

// A refusal is one log line: a control character quoted from the file (a key holding "\n")
// is written as \xNN.
std::string OneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      line += c;
      continue;
    }
    static const char kHex[] = "0123456789abcdef";
    line += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xf]};
  }
  return line;
}

size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<size_t> row(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t above = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[b.size()];
}

// Refuses a key of `object` that is not one of `known`, suggesting the nearest known key.
void CheckKeys(const Node& object, const std::vector<std::string>& known,
               const std::string& where) {
  for (const Member& member : object.members) {
    if (std::find(known.begin(), known.end(), member.key) != known.end()) continue;
    std::string nearest;
    size_t best = std::max<size_t>(3, member.key.size() / 3) + 1;  // farther is no typo
    for (const std::string& candidate : known) {
      const size_t distance = EditDistance(member.key, candidate);
      if (distance < best) {
        best = distance;
        nearest = candidate;
      }
    }
    throw ConfigError{member.line,
                      where + ": unknown key \"" + member.key + "\"" +
                          (nearest.empty() ? "" : " (did you mean \"" + nearest + "\"?)")};
  }
}

// The value of `key`, or null when it is absent (or `required` and absent: an error).
const Member* Get(const Node& object, const char* key, const std::string& where, size_t object_line,
                  bool required = false) {
  const Member* member = object.Find(key);
  if (member == nullptr && required)
    throw ConfigError{object_line, where + ": \"" + key + "\" is missing"};
  return member;
}

std::string Text(const Node& object, const char* key, const std::string& where,
                 bool required = false) {
  const Member* member = Get(object, key, where, object.line, required);
  if (member == nullptr) return "";
  const Node& value = member->value;
  if (value.scalar.is_string()) return value.scalar.get<std::string>();
  throw ConfigError{value.line, where + ": \"" + key + "\" must be a string, not " + value.Dump()};
}

// Free-form JSON kept as its text (the UI meta data): a string as it is, else re-encoded.
json ToJson(const Node& node) {
  if (node.is_array) {
    json array = json::array();
    for (const Node& item : node.items) array.push_back(ToJson(item));
    return array;
  }
  if (!node.is_object) return node.scalar;
  json object = json::object();
  for (const Member& member : node.members) object[member.key] = ToJson(member.value);
  return object;
}

uint32_t Millis(const Node& object, const char* key, const std::string& where) {
  const Member* member = Get(object, key, where, object.line);
  if (member == nullptr) return 0;
  const json& value = member->value.scalar;
  if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX)
    throw ConfigError{
        member->value.line,
        where + ": \"" + key + "\" must be a number of milliseconds, not " + member->value.Dump()};
  return value.get<uint32_t>();
}

double Number(const Member& member, const std::string& where) {
  if (!member.value.scalar.is_number())
    throw ConfigError{member.value.line, where + ": \"" + member.key + "\" must be a number, not " +
                                             member.value.Dump()};
  return member.value.scalar.get<double>();
}

Value ReadValue(const Member& member, const std::string& type, const std::string& where) {
  const json& value = member.value.scalar;
  if (type == "bool" && value.is_boolean()) return value.get<bool>();
  if (type == "int" && value.is_number_integer() &&
      (!value.is_number_unsigned() || value.get<uint64_t>() <= INT64_MAX))
    return value.get<int64_t>();
  if (type == "double" && value.is_number()) return value.get<double>();
  if (type == "string" && value.is_string()) return value.get<std::string>();
  throw ConfigError{member.value.line,
                    where + ": value " + member.value.Dump() + " is not of type \"" + type + "\""};
}

const std::vector<std::string> kTopKeys = {"search_latency_ms", "devices"};
const std::vector<std::string> kDeviceKeys = {
    "id",      "service",  "name",        "interface_name",  "interface_type",  "address",
    "ui_meta", "response", "response_ms", "arrive_after_ms", "depart_after_ms", "properties",
    "speaker"};
const std::vector<std::string> kSpeakerKeys = {"volume", "muted", "media_duration", "uri"};
const std::vector<std::string> kPropertyKeys = {"name", "type",      "value", "min",
                                                "max",  "read_only", "drift"};
const std::vector<std::string> kDriftKeys = {"step", "every_ms"};
const std::vector<std::string> kTypes = {"bool", "int", "double", "string"};
constexpr uint32_t kShortestDrift = 100;  // ms: a faster drift would flood the subscribers

Drift ReadDrift(const Member& member, const Property& property, const std::string& where) {
  const Node& node = member.value;
  const std::string at = where + ".drift";
  if (!node.is_object) throw ConfigError{node.line, at + ": must be an object"};
  CheckKeys(node, kDriftKeys, at);
  if (std::holds_alternative<bool>(property.value) ||
      std::holds_alternative<std::string>(property.value))
    throw ConfigError{node.line, at + ": only a number can drift"};
  Drift drift;
  drift.step = Number(*Get(node, "step", at, node.line, true), at);
  drift.every_ms = Millis(node, "every_ms", at);
  if (!(drift.step > 0))
    throw ConfigError{node.Find("step")->value.line, at + ": \"step\" must be above 0"};
  if (std::holds_alternative<int64_t>(property.value) &&
      drift.step != static_cast<int64_t>(drift.step))
    throw ConfigError{node.Find("step")->value.line,
                      at + ": \"step\" of an int property must be a whole number"};
  if (drift.every_ms < kShortestDrift)
    throw ConfigError{
        node.Find("every_ms") != nullptr ? node.Find("every_ms")->value.line : node.line,
        at + ": \"every_ms\" must be at least " + std::to_string(kShortestDrift)};
  return drift;
}

Property ReadProperty(const Node& node, const std::string& at) {
  if (!node.is_object) throw ConfigError{node.line, at + ": a property must be an object"};
  CheckKeys(node, kPropertyKeys, at);
  Property property;
  property.name = Text(node, "name", at, true);
  const std::string type = Text(node, "type", at, true);
  if (std::find(kTypes.begin(), kTypes.end(), type) == kTypes.end())
    throw ConfigError{node.Find("type")->value.line,
                      at + ": \"type\" must be bool, int, double or string, not \"" + type + "\""};
  property.value = ReadValue(*Get(node, "value", at, node.line, true), type, at);
  if (const Member* min = node.Find("min")) property.min = Number(*min, at);
  if (const Member* max = node.Find("max")) property.max = Number(*max, at);
  if (const Member* read_only = node.Find("read_only")) {
    if (!read_only->value.scalar.is_boolean())
      throw ConfigError{read_only->value.line, at + ": \"read_only\" must be true or false"};
    property.read_only = read_only->value.scalar.get<bool>();
  }
  if (const Member* drift = node.Find("drift")) property.drift = ReadDrift(*drift, property, at);
  const std::string wrong = Validate(property, property.value);
  if (!wrong.empty()) throw ConfigError{node.Find("value")->value.line, at + ": " + wrong};
  return property;
}

// A whole number within min..max of the key `key` of `object`, or `fallback` without it.
int64_t Whole(const Node& object, const char* key, int64_t min, int64_t max, int64_t fallback,
              const std::string& where) {
  const Member* member = object.Find(key);
  if (member == nullptr) return fallback;
  const json& value = member->value.scalar;
  if (!value.is_number_integer() || (value.is_number_unsigned() && value.get<uint64_t>() > INT64_MAX) ||
      value.get<int64_t>() < min || value.get<int64_t>() > max)
    throw ConfigError{member->value.line, where + ": \"" + key + "\" must be a whole number " +
                                              std::to_string(min) + ".." + std::to_string(max) +
                                              ", not " + member->value.Dump()};
  return value.get<int64_t>();
}

// A speaker's settings: {"volume": 25, "muted": false, "media_duration": 180, "uri": "..."},
// each optional; a uri makes it start with that media loaded, stopped.
Speaker ReadSpeaker(const Node& node, const std::string& where) {
  namespace audio = hxf_tool::audio;
  const std::string at = where + ".speaker";
  if (!node.is_object) throw ConfigError{node.line, at + ": must be an object"};
  CheckKeys(node, kSpeakerKeys, at);
  Speaker speaker;
  speaker.volume = Whole(node, "volume", audio::kMinVolume, audio::kMaxVolume, speaker.volume, at);
  if (const Member* muted = node.Find("muted")) {
    if (!muted->value.scalar.is_boolean())
      throw ConfigError{muted->value.line, at + ": \"muted\" must be true or false"};
    speaker.muted = muted->value.scalar.get<bool>();
  }
  speaker.media_duration =
      Whole(node, "media_duration", 1, audio::kMaxPosition, speaker.media_duration, at);
  if (node.Find("uri") != nullptr) {
    speaker.uri = Text(node, "uri", at);
    if (speaker.uri.empty() || speaker.uri.size() > audio::kMaxUriLength)
      throw ConfigError{node.Find("uri")->value.line, at + ": \"uri\" must have 1 to 2048 bytes"};
    speaker.transport = Speaker::Transport::kStopped;
  }
  return speaker;
}

Device ReadDevice(const Node& node, size_t index) {
  std::string where = "devices[" + std::to_string(index) + "]";
  if (!node.is_object) throw ConfigError{node.line, where + ": a device must be an object"};
  const Member* id = node.Find("id");
  if (id != nullptr && id->value.scalar.is_string())
    where += " (\"" + id->value.scalar.get<std::string>() + "\")";
  CheckKeys(node, kDeviceKeys, where);
  Device device;
  device.id = Text(node, "id", where, true);
  device.service = Text(node, "service", where, true);
  device.name = Text(node, "name", where);
  device.interface_name = Text(node, "interface_name", where);
  device.interface_type = Text(node, "interface_type", where);
  device.address = Text(node, "address", where);
  if (const Member* meta = node.Find("ui_meta")) {
    const json value = ToJson(meta->value);
    device.ui_meta = value.is_string() ? value.get<std::string>() : value.dump();
  }
  const std::string response = Text(node, "response", where);
  if (response == "slow") {
    device.response = Response::kSlow;
  } else if (response == "never") {
    device.response = Response::kNever;
  } else if (!response.empty() && response != "normal") {
    throw ConfigError{node.Find("response")->value.line,
                      where + ": \"response\" must be normal, slow or never"};
  }
  device.response_ms = Millis(node, "response_ms", where);
  device.arrive_after_ms = Millis(node, "arrive_after_ms", where);
  device.depart_after_ms = Millis(node, "depart_after_ms", where);
  const Member* speaker = node.Find("speaker");
  if (device.service == kAudioService) {
    // Its properties are the audio service's words, as every provider of audio has them.
    if (const Member* properties = node.Find("properties"))
      throw ConfigError{properties->line,
                        where + ": a device of the service audio is a speaker: no \"properties\" "
                                "(its settings go in \"speaker\")"};
    device.speaker = speaker != nullptr ? ReadSpeaker(speaker->value, where) : Speaker{};
  } else if (speaker != nullptr) {
    throw ConfigError{speaker->line,
                      where + ": \"speaker\" is for a device of the service audio only"};
  }
  if (const Member* properties = node.Find("properties")) {
    if (!properties->value.is_array)
      throw ConfigError{properties->value.line, where + ": \"properties\" must be an array"};
    std::vector<size_t> lines;  // of each property read, for the duplicate check
    for (size_t i = 0; i < properties->value.items.size(); ++i) {
      const Node& item = properties->value.items[i];
      const std::string at = where + ".properties[" + std::to_string(i) + "]";
      Property property = ReadProperty(item, at);
      for (size_t j = 0; j < device.properties.size(); ++j) {
        if (device.properties[j].name == property.name)
          throw ConfigError{item.Find("name")->value.line,
                            at + ": duplicate property \"" + property.name + "\" (first on line " +
                                std::to_string(lines[j]) + ")"};
      }
      lines.push_back(item.Find("name")->value.line);
      device.properties.push_back(std::move(property));
    }
  }
  return device;
}

Model ReadModel(const Node& root) {
  if (!root.is_object) throw ConfigError{root.line, "the file must hold a JSON object"};
  CheckKeys(root, kTopKeys, "top");
  Model model;
  if (root.Find("search_latency_ms") != nullptr)
    model.search_latency_ms = Millis(root, "search_latency_ms", "top");
  const Member* devices = Get(root, "devices", "top", root.line, true);
  if (!devices->value.is_array)
    throw ConfigError{devices->value.line, "\"devices\" must be an array of devices"};
  if (devices->value.items.empty()) throw ConfigError{devices->value.line, "\"devices\" is empty"};
  std::vector<size_t> lines;  // of each device's id, for the duplicate check
  for (size_t i = 0; i < devices->value.items.size(); ++i) {
    const Node& item = devices->value.items[i];
    Device device = ReadDevice(item, i);
    const size_t id_line = item.Find("id")->value.line;
    for (size_t j = 0; j < model.devices.size(); ++j) {
      if (model.devices[j].id == device.id && model.devices[j].service == device.service)
        throw ConfigError{id_line, "devices[" + std::to_string(i) + "]: duplicate device id \"" +
                                       device.id + "\" in service " + device.service +
                                       " (first on line " + std::to_string(lines[j]) + ")"};
    }
    lines.push_back(id_line);
    model.devices.push_back(std::move(device));
  }
  return model;
}

}  // namespace

std::optional<Model> LoadModel(const std::string& path, std::string* error) {
  std::ifstream file(path);
  if (!file) {
    *error = OneLine(path) + ": cannot be read";
    return std::nullopt;
  }
  std::stringstream buffer;
  buffer << file.rdbuf();
  return ParseModel(buffer.str(), path, error);
}

std::optional<Model> ParseModel(const std::string& text, const std::string& path,
                                std::string* error) {
  Lines lines;
  TreeBuilder builder(text, lines);
  json::sax_parse(CountingIterator(text.data(), &lines),
                  CountingIterator(text.data() + text.size(), &lines), &builder);
  try {
    if (builder.Error()) throw *builder.Error();
    return ReadModel(builder.Root());
  } catch (const ConfigError& e) {
    *error = OneLine(path) + ":" + std::to_string(e.line) + ": " + OneLine(e.problem);
    return std::nullopt;
  }
}

}  // namespace hxf_sim
