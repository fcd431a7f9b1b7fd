#include "pages.h"

#include <initializer_list>
#include <utility>

namespace notes {
namespace {

using velkoro::Document;
using velkoro::Element;

using Attributes = std::initializer_list<std::pair<std::string_view, std::string>>;

Element Add(Element parent, std::string_view name, Attributes attributes = {},
            std::string_view text = {}) {
  Element element = parent.Add(name);
  for (const auto& [key, value] : attributes) element.Set(key, value);
  if (!text.empty()) element.SetText(text);
  return element;
}

Document MakePage(const std::string& title, const std::string& person = {}) {
  Document page("html", velkoro::DocumentKind::kHtml);
  page.Root().Set("lang", "en");
  Element head = page.Root().Add("head");
  Add(head, "meta", {{"charset", "utf-8"}});
  Add(head, "meta", {{"name", "viewport"}, {"content", "width=device-width, initial-scale=1"}});
  Add(head, "title", {}, title);
  Add(head, "link", {{"rel", "stylesheet"}, {"href", "/style.css"}});
  Element header = Add(page.Root().Add("body"), "header");
  Add(header, "a", {{"href", "/"}}, "Notes");
  if (!person.empty()) {
    Element leave = Add(header, "form", {{"method", "post"}, {"action", "/logout"}});
    Add(leave, "button", {{"class", "plain"}}, "Log out " + person);
  }
  return page;
}

Element AddMain(Document& page) { return page.QueryFirst("html/body").Add("main"); }

Element AddField(Element form, const std::string& label, std::string_view element,
                 Attributes attributes) {
  Element around = Add(form, "label", {}, label);
  return Add(around, element, attributes);
}

std::string PicturePath(std::int64_t id) { return "/pictures/" + std::to_string(id); }

void AddCard(Element list, const Note& note) {
  Element card = Add(list, "a", {{"class", "card"}, {"href", "/notes/" + std::to_string(note.id)}});
  for (const std::int64_t picture : note.pictures)
    Add(card, "img", {{"src", PicturePath(picture)}, {"alt", ""}, {"loading", "lazy"}});
  Add(card, "h2", {}, note.title);
  Add(card, "p", {}, note.text);
  Add(card, "small", {}, note.changed);
}

}  // namespace

Document LoginPage(const std::string& name, const std::string& trouble) {
  Document page = MakePage("Log in - Notes");
  Element form = Add(AddMain(page), "form", {{"method", "post"}, {"class", "narrow"}});
  if (!trouble.empty()) Add(form, "p", {{"role", "alert"}}, trouble);
  AddField(form, "Name", "input",
           {{"name", "name"}, {"value", name}, {"autocomplete", "username"}, {"required", ""}});
  AddField(form, "Password", "input",
           {{"name", "password"},
            {"type", "password"},
            {"autocomplete", "current-password"},
            {"required", ""}});
  Add(form, "button", {}, "Log in");
  return page;
}

Document ListPage(const std::string& person, const std::vector<Note>& notes,
                  const std::string& words, int page) {
  Document shown = MakePage("Notes", person);
  Element main = AddMain(shown);
  Element search = Add(main, "form", {{"class", "search"}, {"role", "search"}});
  Add(search, "input",
      {{"name", "q"},
       {"type", "search"},
       {"value", words},
       {"placeholder", "Search"},
       {"aria-label", "Search"}});
  Add(search, "a", {{"class", "button"}, {"href", "/new"}}, "New note");
  Element list = Add(main, "section");
  for (const Note& note : notes) AddCard(list, note);
  if (notes.empty()) Add(main, "p", {}, words.empty() ? "No notes yet." : "Nothing was found.");
  Element turning = Add(main, "form", {{"class", "turning"}});
  Add(turning, "input", {{"type", "hidden"}, {"name", "q"}, {"value", words}});
  const auto turn = [&](const char* label, int to) {
    Add(turning, "button", {{"name", "page"}, {"value", std::to_string(to)}}, label);
  };
  if (page > 1) turn("Newer", page - 1);
  if (notes.size() == Database::kPageSize) turn("Older", page + 1);
  return shown;
}

Document NotePage(const std::string& person, const Note& note) {
  Document page = MakePage((note.id == 0 ? "New note" : note.title) + " - Notes", person);
  Element main = AddMain(page);
  const std::string path = note.id == 0 ? "/notes" : "/notes/" + std::to_string(note.id);
  Element form =
      Add(main, "form", {{"method", "post"}, {"action", path}, {"enctype", "multipart/form-data"}});
  AddField(form, "Title", "input",
           {{"name", "title"}, {"value", note.title}, {"maxlength", "200"}, {"required", ""}});
  // Browsers drop one line end at the start of such a field.
  AddField(form, "Text", "textarea", {{"name", "text"}, {"rows", "10"}}).SetText("\n" + note.text);
  for (const std::int64_t picture : note.pictures)
    Add(Add(form, "a", {{"href", PicturePath(picture)}}), "img",
        {{"src", PicturePath(picture)}, {"alt", "picture of this note"}});
  AddField(form, "Add pictures", "input",
           {{"name", "picture"}, {"type", "file"}, {"accept", "image/*"}, {"multiple", ""}});
  Add(form, "button", {}, "Save");
  if (note.id == 0) return page;
  Element away = Add(main, "form", {{"method", "post"}, {"action", path + "/delete"}});
  Add(away, "button", {{"class", "plain"}}, "Delete this note");
  return page;
}

const char* const kStyle = R"(
:root { color-scheme: light dark; --card: #fff; --page: #f2f4f8; --ink: #1c2430; --blue: #2456c8; }
@media (prefers-color-scheme: dark) {
  :root { --card: #232b38; --page: #151a22; --ink: #e6eaf2; --blue: #6d95f5; }
}
* { box-sizing: border-box; }
body { margin: 0; font: 1rem/1.5 system-ui, sans-serif; background: var(--page); color: var(--ink); }
header { display: flex; justify-content: space-between; align-items: center; padding: .6rem 1rem;
  background: var(--blue); }
header a, header button.plain { color: #fff; }
header a { font-weight: bold; font-size: 1.2rem; text-decoration: none; }
main { max-width: 70rem; margin: auto; padding: 1rem; }
.narrow { max-width: 22rem; margin: 2rem auto; }
.search { display: flex; gap: .6rem; margin-bottom: 1rem; }
label { display: block; margin-bottom: 1rem; }
input, textarea { width: 100%; padding: .6rem; font: inherit; color: inherit;
  background: var(--card); border: 1px solid #8894a8; border-radius: .5rem; }
button, .button { padding: .6rem 1.2rem; font: inherit; color: #fff; background: var(--blue);
  border: 0; border-radius: .5rem; text-decoration: none; white-space: nowrap; cursor: pointer; }
button.plain { padding: .4rem; color: inherit; background: none; text-decoration: underline; }
section { display: grid; gap: 1rem; grid-template-columns: repeat(auto-fill, minmax(16rem, 1fr)); }
.card { display: block; overflow: hidden; padding: 1rem; background: var(--card); color: inherit;
  border-radius: .8rem; box-shadow: 0 1px 3px #0003; text-decoration: none; }
.card img { display: block; width: calc(100% + 2rem); height: 9rem; margin: -1rem -1rem .8rem;
  object-fit: cover; }
.card h2, .card p { margin: 0 0 .3rem; overflow-wrap: anywhere; }
.card h2 { font-size: 1.1rem; }
.card p { display: -webkit-box; overflow: hidden; white-space: pre-line; -webkit-line-clamp: 4;
  -webkit-box-orient: vertical; }
form img { max-width: 100%; max-height: 20rem; margin-bottom: 1rem; border-radius: .5rem; }
.turning { display: flex; gap: 1rem; margin-top: 1rem; }
[role=alert] { color: #c0392b; }
)";

}  // namespace notes
