"""Reads an exported mailbox with Python's own mail modules and checks every
message: the two alternatives with their charsets, the attachments' bytes.

check_mailboxes.py KIND PATH EXPECTED.json TO_SUFFIX
  KIND      mbox, maildir or eml (PATH a folder of .eml files)
  EXPECTED  {"attachments": {hex name: hex bytes}, "texts": [snippets]}
Prints "messages N attachments M" and exits 0 when all is well."""
import email
import email.policy
import json
import mailbox
import os
import re
import sys

kind, path, expected_path, to_suffix = sys.argv[1:5]
with open(expected_path) as f:
    expected = json.load(f)
files = {bytes.fromhex(k).decode(): bytes.fromhex(v) for k, v in expected["attachments"].items()}

if kind == "mbox":
    # mboxrd: a reader takes one ">" off every ">From " line.
    raws = [re.sub(rb"(?m)^>(>*From )", rb"\1", m.as_bytes()) for m in mailbox.mbox(path)]
elif kind == "maildir":
    box = mailbox.Maildir(path, factory=None, create=False)
    raws = [box.get_bytes(k) for k in box.keys()]
    assert all(m.get_subdir() == "cur" and "S" in m.get_flags() for m in box), "not in cur, seen"
else:
    raws = []
    for folder, _, names in os.walk(path):
        raws += [open(os.path.join(folder, n), "rb").read() for n in names if n.endswith(".eml")]

ids, found, plains = set(), {}, []
for raw in raws:
    msg = email.message_from_bytes(raw, policy=email.policy.default)
    assert not msg.defects, msg.defects
    for header in ("Date", "From", "To", "Message-ID"):
        assert msg[header], header + " missing"
    assert msg["Subject"].startswith("[IM] "), msg["Subject"]
    assert msg["To"].addresses[0].addr_spec.endswith(to_suffix), msg["To"]
    ids.add(msg["Message-ID"])
    if msg.get_content_type() == "multipart/mixed":
        alternative = next(msg.iter_parts())
    else:
        alternative = msg
    assert alternative.get_content_type() == "multipart/alternative"
    plain, html = alternative.iter_parts()
    assert plain.get_content_type() == "text/plain" and html.get_content_type() == "text/html"
    assert plain.get_content_charset() in ("us-ascii", "utf-8"), plain.get_content_charset()
    assert html.get_content_charset() == "utf-8"
    text = plain.get_content().replace("\r\n", "\n")  # .eml files keep CR LF
    assert text.startswith("Sent by Gabfolio"), text[:40]
    assert html.get_content().rstrip().endswith("</body></html>")
    plains.append(text)
    for part in msg.iter_attachments():
        name = part.get_filename()
        assert name in files, name
        assert part.get_payload(decode=True) == files[name], name + ": bytes differ"
        if name.endswith(".png"):
            assert part.get_content_type() == "image/png"
        found[name] = found.get(name, 0) + 1

assert len(ids) == len(raws), "Message-IDs repeat"
assert set(found) == set(files), sorted(set(files) - set(found))
for snippet in expected["texts"]:
    assert any(snippet in t for t in plains), snippet
print("messages", len(raws), "attachments", sum(found.values()))
