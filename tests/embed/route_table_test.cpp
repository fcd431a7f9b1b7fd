#include "embed/route_table.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

const velkoro::Server::Handler kNothing = [](const velkoro::Request&, velkoro::Answer&) {};

/// What a request finds: the pattern and the values, or the methods that are there.
std::string Found(const ZrRouteTable& table, std::string_view path,
                  ZrMethod method = ZrMethod::kGet) {
  const ZrRouteTable::Match match = table.Find(path, method);
  if (match.route == nullptr)
    return match.allowed == 0 ? "none" : ZrRouteTable::AllowText(match.allowed);
  std::string text = match.route->pattern;
  for (const std::string_view value : match.values) text.append(" ").append(value);
  return text;
}

TEST(RouteTable, TheMostLiteralRouteAnswers) {
  ZrRouteTable table;
  for (const char* pattern : {"/", "/a", "/a/", "/users/me", "/users/{id}", "/users/{id}/posts/{n}",
                              "/users/me/posts/last", "/files/{path...}", "/files/{n}/info"})
    table.Add("GET", pattern, kNothing);
  for (const char* method : {"POST", "DELETE"}) table.Add(method, "/users/{id}", kNothing);
  table.Add("HEAD", "/a", kNothing);
  table.Add("PUT", "/put", kNothing);
  constexpr std::tuple<const char*, ZrMethod, const char*> kCases[] = {
      {"/", ZrMethod::kGet, "GET /"},
      {"/a", ZrMethod::kGet, "GET /a"},
      {"/a", ZrMethod::kHead, "HEAD /a"},
      {"/a/", ZrMethod::kHead, "GET /a/"},
      {"/a/b", ZrMethod::kGet, "none"},
      {"/A", ZrMethod::kGet, "none"},
      {"*", ZrMethod::kOptions, "none"},
      {"/users/me", ZrMethod::kGet, "GET /users/me"},
      {"/users/me", ZrMethod::kDelete, "DELETE /users/{id} me"},
      {"/users/me", ZrMethod::kPut, "GET, POST, HEAD, DELETE, OPTIONS"},
      {"/put", ZrMethod::kGet, "PUT, OPTIONS"},
      {"/users/", ZrMethod::kGet, "none"},
      {"/users/me/posts/1", ZrMethod::kGet, "GET /users/{id}/posts/{n} me 1"},
      {"/users/me/posts/last", ZrMethod::kGet, "GET /users/me/posts/last"},
      {"/files/", ZrMethod::kGet, "GET /files/{path...} "},
      {"/files", ZrMethod::kGet, "none"},
      {"/files/1/info", ZrMethod::kGet, "GET /files/{n}/info 1"},
      {"/files/1/other", ZrMethod::kGet, "GET /files/{path...} 1/other"},
  };
  for (const auto& [path, method, found] : kCases)
    EXPECT_EQ(Found(table, path, method), found) << path;
}

TEST(RouteTable, WhatIsNoRouteIsRefusedWhenItIsAdded) {
  constexpr std::tuple<const char*, const char*, const char*> kCases[] = {
      {"get", "/x", "the method must be"},
      {"TRACE", "/x", "the method must be"},
      {"GET", "x", "begins with '/'"},
      {"GET", "/x{n}", "a whole piece"},
      {"GET", "/{n", "a whole piece"},
      {"GET", "/x?n=1", "no '?' and no '#'"},
      {"GET", "/x%20y", "the character that '%20' stands for"},
      {"GET", "/x/../y", "without '.' and '..'"},
      {"GET", "/{}", "a whole piece"},
      {"GET", "/{...}", "missing or malformed"},
      {"GET", "/{n.}", "missing or malformed"},
      {"GET", "/{r...}/x", "must be its last piece"},
      {"GET", "/{n}/{n}", "two of its pieces have the name 'n'"},
      {"GET", "/taken/{other}", "answers the same paths as 'GET /taken/{name}'"},
      {"GET", "/rest/{other...}", "answers the same paths as 'GET /rest/{all...}'"},
  };
  ZrRouteTable table;
  table.Add("GET", "/taken/{name}", kNothing);
  table.Add("GET", "/rest/{all...}", kNothing);
  for (const auto& [method, pattern, why] : kCases) {
    try {
      table.Add(method, pattern, kNothing);
      ADD_FAILURE() << "taken: " << pattern;
    } catch (const velkoro::ServerError& error) {
      EXPECT_NE(std::string(error.what()).find(why), std::string::npos) << error.what();
    }
  }
}

}  // namespace
