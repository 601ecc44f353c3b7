#!/usr/bin/python3
"""Turns the C++ samples of README.md and docs/*.md into a host project, as a newcomer copies them.

usage: samples.py SOURCE_ROOT OUT_DIR

README's "A host in thirty lines" becomes the program readme_host, unchanged but for its server,
which it takes from QORXML_TEST_SERVICE (the address of a running `qorxml serve`). Every sample of
docs/ becomes one source of the program doc_samples: a sample with a function of its own at the
left margin stands as it is; any other is the body of a function that may use an HttpClient
named client. The functions are never called, but the program links them against the library,
which is what proves that everything they use is exported.
"""
import os
import re
import sys

FENCE = re.compile(r"^```cpp\n(.*?)^```", re.S | re.M)
PREAMBLE = re.compile(r"^(#include .*|using namespace .*;)$")
FUNCTION = re.compile(r"^[A-Za-z][\w:<>&* ]*\s[\w:]+\([^;]*\)\s*\{\s*(//.*)?$", re.M)

HEAD = """#include <qorxmlu/qorxmlu.h>
#include <cstddef>
#include <cstdio>
#include <string>
using namespace QOR;
"""


def samples(path):
    return FENCE.findall(open(path, encoding="utf-8").read())


def readme_host(root):
    text = open(os.path.join(root, "README.md"), encoding="utf-8").read()
    section = text[text.index("## A host in thirty lines"):]
    program = FENCE.search(section).group(1)
    if '"127.0.0.1:8080"' not in program:
        sys.exit("README's program no longer talks to 127.0.0.1:8080: update samples.py")
    program = program.replace('"127.0.0.1:8080"', 'std::getenv("QORXML_TEST_SERVICE")')
    return "#include <cstdlib>\n" + program


def doc_unit(name, index, sample):
    lines = sample.splitlines()
    preamble = [l for l in lines if PREAMBLE.match(l)]
    body = "\n".join(l for l in lines if not PREAMBLE.match(l))
    unit = HEAD + "\n".join(preamble) + "\n"
    if FUNCTION.search(body):
        return unit + body + "\n"
    uses = "HttpClient& client" if re.search(r"\bclient\b", body) and not re.search(r"HttpClient client\(", body) else ""
    return unit + f"void Sample_{name}_{index}({uses}) {{\n{body}\n}}\n"


def main(root, out):
    os.makedirs(out, exist_ok=True)
    open(os.path.join(out, "readme_host.cpp"), "w", encoding="utf-8").write(readme_host(root))
    units = []
    docs = os.path.join(root, "docs")
    for file in sorted(os.listdir(docs)):
        if not file.endswith(".md"):
            continue
        for i, sample in enumerate(samples(os.path.join(docs, file))):
            name = f"{file[:-3]}_{i}"
            units.append(f"doc_{name}.cpp")
            open(os.path.join(out, units[-1]), "w", encoding="utf-8").write(doc_unit(file[:-3], i, sample))
    open(os.path.join(out, "doc_main.cpp"), "w").write("int main() { return 0; }\n")
    cmake = f"""cmake_minimum_required(VERSION 3.21)
project(qorxmlu_samples LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
find_package(qorxmlu CONFIG REQUIRED)
# A newcomer's warnings; an ignored error record (a leak) fails the build.
add_compile_options(-Wall -Wextra -Werror=unused-result -Wno-unused-variable -Wno-unused-but-set-variable)
add_executable(readme_host readme_host.cpp)
add_executable(doc_samples doc_main.cpp {' '.join(units)})
foreach(program readme_host doc_samples)
  target_link_libraries(${{program}} PRIVATE qorxmlu::qorxmlu)
  if(WIN32)
    add_custom_command(TARGET ${{program}} POST_BUILD
      COMMAND ${{CMAKE_COMMAND}} -E copy_if_different $<TARGET_RUNTIME_DLLS:${{program}}> $<TARGET_FILE_DIR:${{program}}>
      COMMAND_EXPAND_LISTS)
  endif()
endforeach()
"""
    open(os.path.join(out, "CMakeLists.txt"), "w").write(cmake)
    print(f"readme_host and {len(units)} samples of docs/ in {out}")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2])
