// The bounded readers of what media renderers send (UpnpAudioReaders.h). They touch nothing
// but their arguments: any thread.
#include "UpnpAudioReaders.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cctype>
#include <cstdio>
#include <memory>
#include <vector>

#include "AudioVocabulary.h"

namespace hxf_upnp {

namespace audio = hxf_tool::audio;

namespace {

std::string Name(const xmlNode* node) {
  return reinterpret_cast<const char*>(node->name);
}

// The attribute `name` of `node`, or nullopt.
std::optional<std::string> Attribute(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  if (value == nullptr) return std::nullopt;
  std::string text = reinterpret_cast<const char*>(value);
  xmlFree(value);
  return text;
}

bool TooDeep(const xmlNode* node, int depth) {
  if (depth > kMaxXmlDepth) return true;
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE && TooDeep(child, depth + 1)) return true;
  }
  return false;
}

// The parser stops at a document type declaration, before its internal subset is read: a
// renderer's XML has none, and entities declared there would be substituted by libxml2's
// tree readers (xmlGetProp, xmlNodeGetContent) even without XML_PARSE_NOENT.
void RefuseDoctype(void* context, const xmlChar*, const xmlChar*, const xmlChar*) {
  xmlParserCtxtPtr parser = static_cast<xmlParserCtxtPtr>(context);
  *static_cast<bool*>(parser->_private) = true;
  xmlStopParser(parser);
}

// While it lives, libxml2's errors that no parser option silences (an input its declared
// encoding cannot convert, "encoding error : input conversion failed") are dropped instead of
// written to stderr: the handler is the calling thread's own, and is given back.
void DropError(void*, const char*, ...) {}
class QuietErrors {
 public:
  QuietErrors() : handler_(xmlGenericError), context_(xmlGenericErrorContext) {
    xmlSetGenericErrorFunc(nullptr, &DropError);
  }
  ~QuietErrors() { xmlSetGenericErrorFunc(context_, handler_); }
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;

 private:
  xmlGenericErrorFunc handler_;
  void* context_;
};

// `text` as an XML document, or null with the reason: never fetched from the network, no
// document type declaration (so no entity but XML's own), at most kMaxEventBytes and
// kMaxXmlDepth.
using Doc = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;
Doc ParseXml(const std::string& text, std::string* problem) {
  Doc doc(nullptr, &xmlFreeDoc);
  if (text.size() > kMaxEventBytes) {
    *problem = "the XML text has " + std::to_string(text.size()) + " bytes (at most " +
               std::to_string(kMaxEventBytes) + ")";
    return doc;
  }
  const std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> parser(xmlNewParserCtxt(),
                                                                          &xmlFreeParserCtxt);
  if (parser == nullptr) {
    *problem = "no memory to read the XML";
    return doc;
  }
  const QuietErrors quiet;
  bool doctype = false;
  parser->_private = &doctype;
  parser->sax->internalSubset = &RefuseDoctype;  // the context's own copy of the handlers
  doc.reset(xmlCtxtReadMemory(parser.get(), text.data(), static_cast<int>(text.size()), nullptr,
                              nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (doctype) {
    *problem = "the XML has a document type declaration";
    doc.reset();
  } else if (doc == nullptr || xmlDocGetRootElement(doc.get()) == nullptr) {
    *problem = "not XML";
    doc.reset();
  } else if (TooDeep(xmlDocGetRootElement(doc.get()), 1)) {
    *problem = "the XML nests deeper than " + std::to_string(kMaxXmlDepth) + " elements";
    doc.reset();
  }
  return doc;
}

// A whole decimal number within min..max, digits only; nullopt otherwise.
std::optional<int64_t> Whole(const std::string& text, int64_t min, int64_t max) {
  if (text.empty() || text.size() > 18) return std::nullopt;
  int64_t value = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value < min || value > max) return std::nullopt;
  return value;
}

std::optional<bool> Flag(const std::string& text) {
  if (text == "1" || text == "true" || text == "True" || text == "TRUE") return true;
  if (text == "0" || text == "false" || text == "False" || text == "FALSE") return false;
  return std::nullopt;
}

}  // namespace

bool ApplyVariable(const std::string& name, const std::string& value, AudioState* state,
                   std::string* problem) {
  const auto refuse = [&](const std::string& why) {
    *problem = name + " \"" + value.substr(0, 64) + "\" " + why;
    return false;
  };
  if (name == "Volume") {
    const auto volume = Whole(value, audio::kMinVolume, audio::kMaxVolume);
    if (!volume) return refuse("is not a volume 0..100");
    state->volume = volume;
  } else if (name == "Mute") {
    const auto muted = Flag(value);
    if (!muted) return refuse("is not a bool");
    state->muted = muted;
  } else if (name == "TransportState") {
    const char* known = audio::TransportStateName(value.c_str());
    if (known == nullptr) return refuse("is not a transport state");
    state->transport_state = std::string(known);
  } else if (name == "AVTransportURI") {
    if (value.size() > audio::kMaxUriLength) return refuse("is longer than 2048 bytes");
    if (value.empty()) {
      state->uri.reset();  // no media
    } else {
      state->uri = value;
    }
  } else if (name == "AVTransportURIMetaData" || name == "CurrentTrackMetaData") {
    const auto title = TitleOf(value);
    if (title) {
      state->title = title;
    } else if (name == "AVTransportURIMetaData") {
      state->title.reset();  // new media that says no title
    }
  } else if (name == "CurrentMediaDuration" || name == "CurrentTrackDuration") {
    if (value.empty() || value == "NOT_IMPLEMENTED") return true;
    const auto seconds = ParseTime(value);
    if (!seconds) return refuse("is not a time H:MM:SS");
    state->duration = seconds;
  } else if (name == "RelativeTimePosition") {
    if (value.empty() || value == "NOT_IMPLEMENTED") return true;
    const auto seconds = ParseTime(value);
    if (!seconds) return refuse("is not a time H:MM:SS");
    state->position = seconds;
  }
  return true;
}

std::optional<int64_t> ParseTime(const std::string& text) {
  // H+:MM:SS, then optionally .F+ or .F0/F1 (fractions, ignored).
  const size_t first = text.find(':');
  if (first == std::string::npos || first == 0 || first > 6 || text.size() < first + 6 ||
      text[first + 3] != ':')
    return std::nullopt;
  const auto hours = Whole(text.substr(0, first), 0, 999999);
  const auto minutes = Whole(text.substr(first + 1, 2), 0, 59);
  const auto seconds = Whole(text.substr(first + 4, 2), 0, 59);
  if (!hours || !minutes || !seconds) return std::nullopt;
  const std::string rest = text.substr(first + 6);
  if (!rest.empty()) {
    if (rest[0] != '.' || rest.size() < 2 || rest.size() > 20) return std::nullopt;
    for (size_t i = 1; i < rest.size(); ++i) {
      if (!std::isdigit(static_cast<unsigned char>(rest[i])) && rest[i] != '/')
        return std::nullopt;
    }
  }
  return *hours * 3600 + *minutes * 60 + *seconds;
}

std::string FormatTime(int64_t seconds) {
  char text[32];
  snprintf(text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
           static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
  return text;
}

std::optional<std::string> TitleOf(const std::string& didl) {
  if (didl.empty() || didl == "NOT_IMPLEMENTED") return std::nullopt;
  std::string problem;
  const Doc doc = ParseXml(didl, &problem);
  if (doc == nullptr) return std::nullopt;
  // Depth-first, bounded by ParseXml's depth check.
  std::vector<xmlNode*> todo{xmlDocGetRootElement(doc.get())};
  while (!todo.empty()) {
    xmlNode* node = todo.back();
    todo.pop_back();
    if (Name(node) == "title") {
      xmlChar* content = xmlNodeGetContent(node);
      std::string title = content != nullptr ? reinterpret_cast<const char*>(content) : "";
      xmlFree(content);
      if (title.empty() || title.size() > audio::kMaxUriLength) return std::nullopt;
      return title;
    }
    for (xmlNode* child = node->last; child != nullptr; child = child->prev) {
      if (child->type == XML_ELEMENT_NODE) todo.push_back(child);
    }
  }
  return std::nullopt;
}

bool ApplyLastChange(const std::string& xml, AudioState* state, std::string* problem) {
  const Doc doc = ParseXml(xml, problem);
  if (doc == nullptr) return false;
  xmlNode* event = xmlDocGetRootElement(doc.get());
  if (Name(event) != "Event") {
    *problem = "the root element is " + Name(event) + ", not Event";
    return false;
  }
  std::string skipped;
  for (xmlNode* instance = event->children; instance != nullptr; instance = instance->next) {
    if (instance->type != XML_ELEMENT_NODE || Name(instance) != "InstanceID" ||
        Attribute(instance, "val") != std::optional<std::string>("0"))
      continue;
    for (xmlNode* variable = instance->children; variable != nullptr; variable = variable->next) {
      if (variable->type != XML_ELEMENT_NODE) continue;
      const auto channel = Attribute(variable, "channel");
      const auto value = Attribute(variable, "val");
      if (!value || (channel && *channel != "Master")) continue;
      std::string why;
      if (!ApplyVariable(Name(variable), *value, state, &why))
        skipped += (skipped.empty() ? "" : "; ") + why;
    }
  }
  *problem = skipped;
  return true;
}

}  // namespace hxf_upnp
