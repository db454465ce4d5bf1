#include "doctor/DescriptionCheck.h"

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include <gst/gst.h>

namespace station {
namespace {

constexpr std::string_view kBlanks = " \t\n";

// A word of a description: quoted blanks do not end it.
struct Word {
  enum class Kind { Link, Element, Reference, Caps, Property };

  Kind kind;
  std::size_t offset;
  std::string_view text;
};

Word::Kind kindOf(std::string_view text) {
  const std::size_t mark = text.find_first_of("=/.,");
  if (text == "!") {
    return Word::Kind::Link;
  }
  if (mark == std::string_view::npos) {
    return Word::Kind::Element;
  }
  switch (text[mark]) {
    case '=':
      return Word::Kind::Property;
    case '.':
      return Word::Kind::Reference;  // to an element by its name, perhaps with a pad's
    default:
      return Word::Kind::Caps;
  }
}

std::vector<Word> splitWords(std::string_view description) {
  std::vector<Word> words;
  std::size_t begin = description.find_first_not_of(kBlanks);
  while (begin != std::string_view::npos) {
    std::size_t end = begin;
    for (bool quoted = false; end < description.size(); ++end) {
      quoted ^= description[end] == '"';
      if (!quoted && kBlanks.find(description[end]) != std::string_view::npos) {
        break;
      }
    }
    const std::string_view text = description.substr(begin, end - begin);
    words.push_back({kindOf(text), begin, text});
    begin = description.find_first_not_of(kBlanks, end);
  }
  return words;
}

struct ClassUnref {
  void operator()(gpointer klass) const { g_type_class_unref(klass); }
};

std::string enumValues(GParamSpec* spec) {
  std::string text;
  const GEnumClass* const values = G_PARAM_SPEC_ENUM(spec)->enum_class;
  for (guint i = 0; i < values->n_values; ++i) {
    text += (i > 0 ? ", " : "; it takes ") + std::to_string(values->values[i].value) + " (" +
            values->values[i].value_nick + ")";
  }
  return text;
}

// Why the property does not take the value; empty if it does.
std::string refusalOf(GParamSpec* spec, const std::string& text) {
  if ((spec->flags & G_PARAM_WRITABLE) == 0) {
    return "cannot be set";
  }
  g_auto(GValue) value = G_VALUE_INIT;
  g_value_init(&value, spec->value_type);
  const bool understood = gst_value_deserialize_with_pspec(&value, text.c_str(), spec) == TRUE;
  // Validation changes what is out of the property's range.
  if (understood && g_param_value_validate(spec, &value) == FALSE) {
    return {};
  }
  return "does not take \"" + text + "\"" +
         (G_IS_PARAM_SPEC_ENUM(spec) ? enumValues(spec) : std::string());
}

class Checker {
 public:
  explicit Checker(const std::string& description) : words_(splitWords(description)) {}

  std::vector<DescriptionProblem> run() {
    for (std::size_t i = 0; i < words_.size(); ++i) {
      switch (words_[i].kind) {
        case Word::Kind::Element:
          enter(words_[i]);
          break;
        case Word::Kind::Property:
          checkProperty(words_[i]);
          break;
        case Word::Kind::Caps:
          checkCaps(i);
          break;
        default:
          break;
      }
    }
    return std::move(problems_);
  }

 private:
  void report(const Word& word, std::string message) {
    problems_.push_back({word.offset, word.text.size(), std::move(message)});
  }

  void enter(const Word& word) {
    element_ = word.text;
    class_.reset();
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(element_.c_str());
    if (factory == nullptr) {
      report(word, "there is no element " + element_);
      return;
    }
    g_autoptr(GstPluginFeature) loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(factory));
    if (loaded == nullptr) {
      report(word, "the plugin of " + element_ + " does not load");
      return;
    }
    const GType type = gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded));
    class_.reset(static_cast<GObjectClass*>(g_type_class_ref(type)));
  }

  void checkProperty(const Word& word) {
    if (class_ == nullptr) {
      return;
    }
    const std::size_t equals = word.text.find('=');
    const std::string name(word.text.substr(0, equals));
    std::string value(word.text.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    GParamSpec* const spec = g_object_class_find_property(class_.get(), name.c_str());
    if (spec == nullptr) {
      report(word, element_ + " has no property " + name);
      return;
    }
    const std::string refusal = refusalOf(spec, value);
    if (!refusal.empty()) {
      report(word, "property " + name + " of " + element_ + " " + refusal);
    }
  }

  void checkCaps(std::size_t index) {
    const Word& word = words_[index];
    g_autoptr(GstCaps) caps = gst_caps_from_string(std::string(word.text).c_str());
    if (caps == nullptr) {
      report(word, "GStreamer does not take this for caps");
      return;
    }
    checkPads(word, element_, GST_PAD_SRC, caps);
    const auto next = std::find_if(words_.begin() + static_cast<std::ptrdiff_t>(index),
                                   words_.end(), [](const Word& candidate) {
                                     return candidate.kind == Word::Kind::Element ||
                                            candidate.kind == Word::Kind::Reference;
                                   });
    if (next != words_.end() && next->kind == Word::Kind::Element) {
      checkPads(word, std::string(next->text), GST_PAD_SINK, caps);
    }
  }

  void checkPads(const Word& word, const std::string& element, GstPadDirection direction,
                 GstCaps* caps) {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(element.c_str());
    if (factory == nullptr) {
      return;
    }
    const bool fits = direction == GST_PAD_SRC
                          ? gst_element_factory_can_src_any_caps(factory, caps) == TRUE
                          : gst_element_factory_can_sink_any_caps(factory, caps) == TRUE;
    if (!fits) {
      report(word, element + (direction == GST_PAD_SRC ? " does not give" : " does not take") +
                       " these caps");
    }
  }

  const std::vector<Word> words_;
  std::vector<DescriptionProblem> problems_;
  std::string element_;
  std::unique_ptr<GObjectClass, ClassUnref> class_;  // of `element_`; null if it cannot be had
};

}  // namespace

std::vector<DescriptionProblem> checkDescription(const std::string& description) {
  std::vector<DescriptionProblem> problems = Checker(description).run();
  if (!problems.empty()) {
    return problems;  // GStreamer would only name the first of them again
  }
  g_autoptr(GError) error = nullptr;
  GstElement* const parsed = gst_parse_launch(description.c_str(), &error);
  if (parsed != nullptr) {
    gst_object_unref(gst_object_ref_sink(parsed));
  }
  if (error != nullptr) {
    problems.push_back({0, 0, error->message});
  }
  return problems;
}

std::vector<std::string> elementsOf(const std::string& description) {
  std::vector<std::string> elements;
  for (const Word& word : splitWords(description)) {
    if (word.kind == Word::Kind::Element) {
      elements.emplace_back(word.text);
    }
  }
  return elements;
}

std::string markProblem(const std::string& description, const DescriptionProblem& problem) {
  if (problem.length == 0) {
    return description;
  }
  std::size_t begin = 0;
  std::size_t end = description.size();
  for (const Word& word : splitWords(description)) {
    if (word.kind == Word::Kind::Link && word.offset < problem.offset) {
      begin = word.offset;
    } else if (word.kind == Word::Kind::Link) {
      end = word.offset;
      break;
    }
  }
  begin = description.find_first_not_of(kBlanks, begin);
  std::string part = description.substr(begin, end - begin);
  part.erase(part.find_last_not_of(kBlanks) + 1);
  return part + "\n" + std::string(problem.offset - begin, ' ') + std::string(problem.length, '^');
}

}  // namespace station
