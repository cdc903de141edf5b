#include "lumora/platform/Localization.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "lumora/platform/Text.h"

namespace lumora {
namespace {

// The catalogue: English key, Simplified Chinese text.
//
// What belongs here is every text written for a person to read in the panel, whichever
// front-end draws it: its words and buttons, the reading line, the notes after a copy or an
// insertion, the terminal panel's key hints, picker prompts and status lines, and the error
// texts that reach the panel's error line. Each entry is a whole sentence or a whole label;
// a name, number or reason inside it is a "{name}" placeholder that withValues() fills, so a
// translation can put it where its own grammar wants. A text is never glued from translated
// pieces around a name. An error text that is not in the table yet shows in English, which is
// the key.
//
// What stays English and outside, on purpose, because programs and people's scripts read it or
// it is not prose at all:
//  - debug lines (LUMORA_DEBUG, --debug);
//  - machine-readable output: JSON fields, the native host's message shapes, tab-separated
//    lists, settings keys and values, `conversations show` fields;
//  - the command line's own words: usage, --help, the manual page and the shell completions,
//    all generated from the command declarations, and the command's own diagnostics;
//  - the lines docs/cli.md quotes as the command's contract (the size limits' refusals, the
//    settings' "did you mean", the host rules' texts). An error of the library's that the panel
//    shows as well is the panel's text, translated wherever it is shown;
//  - names: models, services, the product, conversation titles, and the keys of the keyboard
//    as printed on them (Enter, Esc, Tab, Ctrl-G, PgUp).
//
// The terminal's hint bar takes the translated words at their display width, a CJK character
// being two columns: keep a translated hint no wider than needed, the bar has to fit in 80.
constexpr std::pair<std::string_view, std::string_view> kSimplifiedChinese[] = {
    {"Lumora", "Lumora"},
    {"Writing...", "正在撰写..."},
    {"Prompt", "提示词"},
    {"New Chat", "新对话"},
    {"Generate", "生成"},
    {"Copy", "复制"},
    {"Stop", "停止"},
    {"Regenerate", "重新生成"},
    {"Back", "返回"},
    {"Insufficient Quota", "额度不足"},
    {"No service found", "未找到服务"},
    {"Model", "模型"},
    {"Conversation", "对话"},
    {"Instruction", "指令"},
    {"Copied", "已复制"},
    {"Copying…", "正在复制…"},
    // The conversation store's failures, as the panel's error line shows them.
    {"The conversation store is busy: another program has held it for several seconds. Try "
     "again when it has finished.",
     "对话存储正忙：另一个程序已占用它数秒。请在它完成后重试。"},
    {"The conversation store could not be used: {detail}.", "无法使用对话存储：{detail}。"},
    // The terminal panel: its status line, the picker's prompt, and the key hints' words.
    {"Lumora: too small", "Lumora：窗口太小"},
    {"type to filter", "输入以筛选"},
    {"no match", "无匹配项"},
    {"scroll", "滚动"},
    {"quit", "退出"},
    {"move", "移动"},
    {"choose", "选择"},
    {"close", "关闭"},
    {"open", "打开"},
    {"next field", "下一栏"},
    // What the model reads, as the input page says it.
    {"A new mail: the model gets your instruction alone", "新邮件：模型只收到你的指令"},
    {"The model reads: 1 quoted passage ({characters} characters)",
     "模型读取：1 段引用（{characters} 个字符）"},
    {"The model reads: {count} quoted passages ({characters} characters)",
     "模型读取：{count} 段引用（{characters} 个字符）"},
    {"This mail quotes nothing: the model gets your instruction alone",
     "这封邮件没有引用内容：模型只收到你的指令"},
    {"The quoted passages cannot be read: {reason}", "无法读取引用内容：{reason}"},
    {"The model reads: the message ({characters} characters)", "模型读取：这封邮件（{characters} 个字符）"},
    {"The model reads: the message and 1 earlier message ({characters} characters)",
     "模型读取：这封邮件及 1 封更早的邮件（{characters} 个字符）"},
    {"The model reads: the message and {count} earlier messages ({characters} characters)",
     "模型读取：这封邮件及 {count} 封更早的邮件（{characters} 个字符）"},
    {"The model reads: the message from {sender} ({characters} characters)",
     "模型读取：{sender} 的邮件（{characters} 个字符）"},
    {"The model reads: the message from {sender} and 1 earlier message ({characters} characters)",
     "模型读取：{sender} 的邮件及 1 封更早的邮件（{characters} 个字符）"},
    {"The model reads: the message from {sender} and {count} earlier messages ({characters} "
     "characters)",
     "模型读取：{sender} 的邮件及 {count} 封更早的邮件（{characters} 个字符）"},
    {"The model reads: your draft ({characters} characters)", "模型读取：你的草稿（{characters} 个字符）"},
    {"The model reads: your draft and the message it answers ({characters} characters)",
     "模型读取：你的草稿及所回复的邮件（{characters} 个字符）"},
    {"This message holds no text: the model gets your instruction alone",
     "这封邮件没有文字：模型只收到你的指令"},
    {"The oldest part was left out to fit.", "为适应长度，最早的部分已略去。"},
    {"Read the whole message", "读取整封邮件"},
    {"Read only the quoted passages", "只读取引用内容"},
    {"Insert", "插入"},
    {"Inserting…", "正在插入…"},
    {"Inserted", "已插入"},
    {"Sent to the terminal's clipboard (OSC 52)", "已发送到终端的剪贴板（OSC 52）"},
    // Why a part of the message could not be read.
    {"A part of the message could not be decoded from its transfer encoding {encoding}.",
     "邮件的某个部分无法按其传输编码 {encoding} 解码。"},
    {"A part of the message uses the transfer encoding {encoding}, which Lumora cannot decode.",
     "邮件的某个部分使用传输编码 {encoding}，Lumora 无法解码。"},
    {"A part of the message is not valid quoted-printable text.",
     "邮件的某个部分不是有效的 quoted-printable 文本。"},
    {"A part of the message is not valid UTF-8 text.", "邮件的某个部分不是有效的 UTF-8 文本。"},
    {"A part of the message is not valid text in the character set {charset}.",
     "邮件的某个部分不是字符集 {charset} 中的有效文本。"},
    {"A part of the message uses the character set {charset}, which Lumora does not know.",
     "邮件的某个部分使用字符集 {charset}，Lumora 不认识它。"},
    // Why `lumora route` chose a service.
    {"{model} is a speech model: it goes to the hosted cloud or to OpenAI, whichever comes first "
     "in your services.",
     "{model} 是语音模型：交给托管云或 OpenAI，以你的服务中排在前面的为准。"},
    {"{model} is offered only by the hosted cloud.", "{model} 只由托管云提供。"},
    {"{model} is a Claude model: it goes to Claude, OpenRouter or the hosted cloud, whichever "
     "comes first in your services.",
     "{model} 是 Claude 模型：交给 Claude、OpenRouter 或托管云，以你的服务中排在前面的为准。"},
    {"{model} is a Gemini model: it goes to Gemini, OpenRouter or the hosted cloud, whichever "
     "comes first in your services.",
     "{model} 是 Gemini 模型：交给 Gemini、OpenRouter 或托管云，以你的服务中排在前面的为准。"},
    {"{model} is a Moonshot model.", "{model} 是 Moonshot 模型。"},
    {"{model} is a Reka model.", "{model} 是 Reka 模型。"},
    {"{model} is a Mistral model.", "{model} 是 Mistral 模型。"},
    {"{model} is a Groq model.", "{model} 是 Groq 模型。"},
    {"{model} is not in the catalogue. {service} is the first of your services that takes a "
     "model named like it, so the request goes there; whether the model exists is for that "
     "service to say.",
     "{model} 不在模型目录中。{service} 是你的服务中第一个接受这类名称的，所以请求发往那里；"
     "该模型是否存在由那个服务判断。"},
    {"{service} is the first of your services that offers {model}.",
     "{service} 是你的服务中第一个提供 {model} 的。"},
    {"{model} is not in the catalogue, so it goes to your Ollama server.",
     "{model} 不在模型目录中，所以交给你的 Ollama 服务器。"},
    {"The model service lists {model} under {service}.", "模型服务把 {model} 列在 {service} 之下。"},
    {"No service is set up: the request would go to OpenAI without a key, and be refused.",
     "尚未设置任何服务：请求会不带密钥发往 OpenAI，并被拒绝。"},
    {"None of your services offers {model} by name, so the hosted cloud or OpenAI answers it.",
     "你的服务都没有按名称提供 {model}，所以由托管云或 OpenAI 回答。"},
    {"None of your services offers {model} by name, so the first of your services answers it.",
     "你的服务都没有按名称提供 {model}，所以由你的第一个服务回答。"},
};

}  // namespace

Language languageOf(std::string_view locale) {
  const size_t end = locale.find_first_of("_-.@:");
  const std::string_view language = locale.substr(0, end);
  if (!text::equalsIgnoringCase(language, "zh")) return Language::english;
  const std::string rest = text::asciiLowercased(locale.substr(language.size()));
  for (std::string_view traditional : {"tw", "hk", "mo", "hant"})
    if (rest.find(traditional) != std::string::npos) return Language::english;
  return Language::simplifiedChinese;
}

Language userLanguage() {
  static const Language language = [] {
    // LANGUAGE lists preferences, the first one winning; the locale variables name one.
    if (const char* list = std::getenv("LANGUAGE"); list && *list) {
      std::string_view first(list);
      first = first.substr(0, first.find(':'));
      if (!first.empty()) return languageOf(first);
    }
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
      if (const char* value = std::getenv(name); value && *value) return languageOf(value);
    }
    return Language::english;
  }();
  return language;
}

std::string localized(std::string_view english, Language language) {
  if (language == Language::simplifiedChinese) {
    for (const auto& [key, text] : kSimplifiedChinese)
      if (key == english) return std::string(text);
  }
  return std::string(english);
}

std::string localized(std::string_view english) { return localized(english, userLanguage()); }

std::span<const std::pair<std::string_view, std::string_view>> translations(Language language) {
  if (language == Language::simplifiedChinese) return kSimplifiedChinese;
  return {};
}

std::string withValues(std::string_view text,
                       std::initializer_list<std::pair<std::string_view, std::string_view>> values) {
  std::string out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const size_t open = text.find('{', i);
    if (open == std::string_view::npos) break;
    const size_t close = text.find('}', open);
    if (close == std::string_view::npos) break;
    out.append(text.substr(i, open - i));
    const std::string_view name = text.substr(open + 1, close - open - 1);
    bool found = false;
    for (const auto& [key, value] : values) {
      if (key != name) continue;
      out.append(value);
      found = true;
      break;
    }
    if (!found) out.append(text.substr(open, close - open + 1));
    i = close + 1;
  }
  out.append(text.substr(std::min(i, text.size())));
  return out;
}

}  // namespace lumora
