#!/bin/sh
# A program that answers a request: first its head lines, ended by CR LF, then an empty line, then
# the page. What it learns of the request is in its environment.
printf 'Content-Type: text/plain; charset=utf-8\r\n\r\n'
echo "Hello from a shell script."
echo "Method: $REQUEST_METHOD"
echo "Query: $QUERY_STRING"
echo "Script: $SCRIPT_FILENAME"
echo "Browser: $HTTP_USER_AGENT"
