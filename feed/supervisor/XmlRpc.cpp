#include "XmlRpc.h"

#include <expat.h>

#include <charconv>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace Feed::XmlRpc {

namespace {

// Elements nest at most this deep in a reply we accept; deeper replies are refused, which
// also bounds the recursion below.
constexpr int maxDepth = 64;

// One element as expat reported it: its name, its own text and its child elements.
struct Element {
    std::string name;
    std::string text;
    std::vector<std::unique_ptr<Element>> children;
};

struct Builder {
    XML_Parser parser = nullptr;
    std::unique_ptr<Element> root;
    std::vector<Element*> open;
    std::string error; // set when the builder stopped the parser
};

void stop(Builder& b, std::string why) {
    if (b.error.empty()) b.error = std::move(why);
    XML_StopParser(b.parser, XML_FALSE);
}

void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char**) {
    Builder& b = *static_cast<Builder*>(data);
    if (static_cast<int>(b.open.size()) >= maxDepth) return stop(b, "elements nested more than 64 deep");
    auto e = std::make_unique<Element>();
    e->name = name;
    Element* raw = e.get();
    if (b.open.empty()) {
        b.root = std::move(e);
    } else {
        b.open.back()->children.push_back(std::move(e));
    }
    b.open.push_back(raw);
}

void XMLCALL onEnd(void* data, const XML_Char*) {
    Builder& b = *static_cast<Builder*>(data);
    if (!b.open.empty()) b.open.pop_back();
}

void XMLCALL onText(void* data, const XML_Char* s, int len) {
    Builder& b = *static_cast<Builder*>(data);
    if (!b.open.empty()) b.open.back()->text.append(s, static_cast<std::size_t>(len));
}

void XMLCALL onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    stop(*static_cast<Builder*>(data), "the reply declares a document type");
}

// The only child element of e; throws when e has none or several.
const Element& onlyChild(const Element& e) {
    if (e.children.size() != 1)
        throw BadReply("<" + e.name + "> holds " + std::to_string(e.children.size()) + " elements, expected one");
    return *e.children.front();
}

const Element* child(const Element& e, std::string_view name) {
    for (const auto& c : e.children)
        if (c->name == name) return c.get();
    return nullptr;
}

std::int64_t integerOf(const Element& e) {
    std::string_view s = e.text;
    while (!s.empty() && (s.front() == ' ' || s.front() == '\n' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\n' || s.back() == '\t')) s.remove_suffix(1);
    if (!s.empty() && s.front() == '+') s.remove_prefix(1);
    std::int64_t v = 0;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (s.empty() || ec != std::errc() || end != s.data() + s.size())
        throw BadReply("<" + e.name + "> is not an integer: \"" + e.text.substr(0, 32) + "\"");
    return v;
}

Value valueOf(const Element& e) {
    if (e.name != "value") throw BadReply("expected <value>, found <" + e.name + ">");
    Value out;
    if (e.children.empty()) { // no type element: a string
        out.v = e.text;
        return out;
    }
    const Element& t = onlyChild(e);
    if (t.name == "string" || t.name == "dateTime.iso8601" || t.name == "base64") {
        out.v = t.text;
    } else if (t.name == "int" || t.name == "i4" || t.name == "i8") {
        out.v = integerOf(t);
    } else if (t.name == "boolean") {
        std::int64_t b = integerOf(t);
        if (b != 0 && b != 1) throw BadReply("<boolean> is neither 0 nor 1");
        out.v = b == 1;
    } else if (t.name == "double") {
        char* end = nullptr;
        double d = std::strtod(t.text.c_str(), &end);
        if (t.text.empty() || *end != '\0') throw BadReply("<double> is not a number");
        out.v = d;
    } else if (t.name == "nil") {
        out.v = std::monostate{};
    } else if (t.name == "array") {
        const Element& data = onlyChild(t);
        if (data.name != "data") throw BadReply("<array> holds <" + data.name + ">, expected <data>");
        Array a;
        a.reserve(data.children.size());
        for (const auto& c : data.children) a.push_back(valueOf(*c));
        out.v = std::move(a);
    } else if (t.name == "struct") {
        Struct s;
        for (const auto& m : t.children) {
            if (m->name != "member") throw BadReply("<struct> holds <" + m->name + ">, expected <member>");
            const Element* name = child(*m, "name");
            const Element* value = child(*m, "value");
            if (!name || !value || m->children.size() != 2)
                throw BadReply("a <member> needs one <name> and one <value>");
            s.insert_or_assign(name->text, valueOf(*value));
        }
        out.v = std::move(s);
    } else {
        throw BadReply("unknown value type <" + t.name + ">");
    }
    return out;
}

} // namespace

const Value* Value::member(std::string_view name) const {
    const Struct* s = structure();
    if (!s) return nullptr;
    auto it = s->find(std::string(name));
    return it == s->end() ? nullptr : &it->second;
}

Fault::Fault(std::int64_t code, std::string text)
    : std::runtime_error("fault " + std::to_string(code) + ": " + text), code_(code), text_(std::move(text)) {}

namespace {

void escapeInto(std::string& out, std::string_view s) {
    for (char c : s) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out += c;
        }
    }
}

} // namespace

std::string callBody(std::string_view method, const std::vector<std::string>& params) {
    std::string out = "<?xml version=\"1.0\"?>\n<methodCall><methodName>";
    escapeInto(out, method);
    out += "</methodName><params>";
    for (const std::string& p : params) {
        out += "<param><value><string>";
        escapeInto(out, p);
        out += "</string></value></param>";
    }
    out += "</params></methodCall>\n";
    return out;
}

struct ResponseReader::Parse {
    Builder b;
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser{XML_ParserCreate("UTF-8"),
                                                                                         &XML_ParserFree};
    bool failed = false;   // expat stopped: later bytes are ignored
    bool finished = false; // finish() was called
    std::string problem;   // what expat or the builder found, with where

    void fail() {
        failed = true;
        std::string where = " (line " + std::to_string(XML_GetCurrentLineNumber(b.parser)) + ", column " +
                            std::to_string(XML_GetCurrentColumnNumber(b.parser)) + ")";
        problem = !b.error.empty()
                      ? b.error + where
                      : std::string("not well-formed XML: ") + XML_ErrorString(XML_GetErrorCode(b.parser)) + where;
    }
};

ResponseReader::ResponseReader() : parse_(std::make_unique<Parse>()) {
    if (!parse_->parser) throw std::bad_alloc();
    Builder& b = parse_->b;
    b.parser = parse_->parser.get();
    XML_SetUserData(b.parser, &b);
    XML_SetElementHandler(b.parser, onStart, onEnd);
    XML_SetCharacterDataHandler(b.parser, onText);
    XML_SetStartDoctypeDeclHandler(b.parser, onDoctype);
}

ResponseReader::~ResponseReader() = default;

void ResponseReader::feed(std::string_view bytes) {
    size_ += bytes.size();
    Parse& p = *parse_;
    // expat takes an int length: a larger piece goes in slices.
    constexpr std::size_t slice = std::size_t{1} << 30;
    while (!bytes.empty() && !p.failed && !p.finished) {
        std::string_view now = bytes.substr(0, slice);
        bytes.remove_prefix(now.size());
        if (XML_Parse(p.b.parser, now.data(), static_cast<int>(now.size()), XML_FALSE) != XML_STATUS_OK) p.fail();
    }
}

Value ResponseReader::finish() {
    Parse& p = *parse_;
    if (p.finished) throw std::logic_error("XmlRpc::ResponseReader::finish called twice");
    if (!p.failed && XML_Parse(p.b.parser, "", 0, XML_TRUE) != XML_STATUS_OK) p.fail();
    p.finished = true;
    if (p.failed) throw BadReply(p.problem);
    const Builder& b = p.b;
    if (!b.root || b.root->name != "methodResponse") throw BadReply("the reply is not a <methodResponse>");
    const Element& top = onlyChild(*b.root);
    if (top.name == "fault") {
        Value f = valueOf(onlyChild(top));
        const Value* code = f.member("faultCode");
        const Value* text = f.member("faultString");
        if (!code || !code->integer() || !text || !text->string())
            throw BadReply("a <fault> needs an integer faultCode and a string faultString");
        throw Fault(*code->integer(), *text->string());
    }
    if (top.name != "params") throw BadReply("<methodResponse> holds <" + top.name + ">, expected <params>");
    const Element& param = onlyChild(top);
    if (param.name != "param") throw BadReply("<params> holds <" + param.name + ">, expected <param>");
    return valueOf(onlyChild(param));
}

Value decodeResponse(std::string_view body) {
    ResponseReader r;
    r.feed(body);
    return r.finish();
}

} // namespace Feed::XmlRpc
