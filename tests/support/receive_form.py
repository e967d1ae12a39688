#!/usr/bin/python3
"""CGI program: stores the files of a POSTed multipart form under FORM_DIR, and a line about each part in .parts."""
import email.parser
import email.policy
import os
import sys

directory = os.environ["FORM_DIR"]
length = int(os.environ.get("CONTENT_LENGTH") or 0)
head = "Content-Type: %s\r\n\r\n" % os.environ.get("CONTENT_TYPE", "")
body = sys.stdin.buffer.read(length)
form = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head.encode() + body)

lines = []
for part in form.iter_parts() if form.is_multipart() else []:
    content = part.get_payload(decode=True)
    field = part.get_param("name", header="content-disposition")
    name = part.get_filename()
    lines.append("%s %s %s %d\n" % (field, name, part.get_content_type(), len(content)))
    if name:
        with open(os.path.join(directory, os.path.basename(name)), "wb") as file:
            file.write(content)
with open(os.path.join(directory, ".parts"), "w") as file:
    file.writelines(lines)
print("Status: %s\r\nContent-Type: text/plain\r\n\r\nreceived %d parts" % ("200 OK" if lines else "400 Bad", len(lines)))
