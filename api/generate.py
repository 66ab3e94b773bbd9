#!/usr/bin/env python3
"""Build-time generator: turns the API description into the regular families
of code (entry ids and names, function types, command classes, wrappers, the
host platform's stubs and name tables, the test driver's fakes).

    generate.py --api-dir api --out DIR

Inputs, all in --api-dir:
  gl.api             one C prototype per GL entry point (extract_gl.py)
  egl.api            the platform's EGL table: kind, form, prototype
  gl_kinds.txt       wrapper form and kind per GL name, plus the rule
  gl_copy_sizes.txt  bytes copied by the "copy" kind
"""
import argparse
import os
import re
import sys

PROTO_RE = re.compile(r"^(?P<ret>.+?)\s*\b(?P<name>\w+)\((?P<params>.*)\)\s*$")


class Param:
    def __init__(self, text):
        m = re.match(r"^(.*?)(\w+)$", text.strip())
        self.type = m.group(1).strip()
        self.name = m.group(2)
        if self.type.endswith("*"):
            self.type = self.type.replace(" *", "*").replace("*", " *").replace(" *const *", " *const*")
        self.type = re.sub(r"\s+", " ", self.type).strip()

    @property
    def is_pointer(self):
        return "*" in self.type


class Entry:
    def __init__(self, line):
        m = PROTO_RE.match(line.strip())
        if not m:
            raise SystemExit("cannot parse prototype: %r" % line)
        self.name = m.group("name")
        self.ret = re.sub(r"\s+", " ", m.group("ret")).strip()
        params = m.group("params").strip()
        self.params = [] if params in ("", "void") else [Param(p) for p in split_params(params)]
        # Filled by classification.
        self.form = None      # "opt" or "plain"
        self.kind = None      # recorded, copy, sync, origin, special, bounds
        self.by_rule = False
        self.handwritten = False
        self.plain_too = False
        self.plain_by_hand = False

    @property
    def void(self):
        return self.ret == "void"

    def decl(self, fname):
        return "%s %s(%s)" % (self.ret, fname, ", ".join("%s %s" % (p.type, p.name) for p in self.params) or "void")

    def args(self):
        return ", ".join(p.name for p in self.params)

    def pfn(self):
        return "kam_pfn_" + self.name

    def wrapper(self, form=None):
        return "kam_%s%s" % (self.name, "_opt" if (form or self.form) == "opt" else "")


def split_params(text):
    return [p.strip() for p in text.split(",")]


def read_lines(path):
    with open(path) as f:
        for line in f:
            line = line.split("#", 1)[0].rstrip()
            if line.strip():
                yield line


def read_gl(api_dir):
    return [Entry(l) for l in read_lines(os.path.join(api_dir, "gl.api"))]


def read_egl(api_dir):
    entries = []
    for line in read_lines(os.path.join(api_dir, "egl.api")):
        kind, form, proto = line.split(None, 2)
        e = Entry(proto)
        e.kind = kind
        e.plain_too = form.endswith("+plain")
        e.form = form.split("+")[0]
        entries.append(e)
    return entries


def read_sections(path):
    sections, current = {}, None
    for line in read_lines(path):
        m = re.match(r"^\[(\w+)\]", line)
        if m:
            current = sections.setdefault(m.group(1), [])
            continue
        current.extend(line.split())
    return sections


def read_copy_sizes(api_dir):
    sizes = {}
    for line in read_lines(os.path.join(api_dir, "gl_copy_sizes.txt")):
        name, param, expr = line.split(None, 2)
        sizes[name] = (param, expr.strip())
    return sizes


SECTION_KIND = {
    "recorded_opt": ("recorded", "opt"),
    "copy_opt": ("copy", "opt"),
    "sync_opt": ("sync", "opt"),
    "origin_opt": ("origin", "opt"),
    "sync_plain": ("sync", "plain"),
    "origin_plain": ("origin", "plain"),
    "recorded_plain": ("recorded", "plain"),
    "special_opt": ("special", "opt"),
    "special_plain": ("special", "plain"),
    "bounds_plain": ("bounds", "plain"),
}


def classify(gl, api_dir):
    """Gives every GL name its form and kind: the lists first, the rule for
    the rest. Fails on names the lists know but the API does not."""
    sections = read_sections(os.path.join(api_dir, "gl_kinds.txt"))
    by_name = {e.name: e for e in gl}
    def section_kind(section):
        # Sections may carry a suffix naming the owner (special_opt_buffers).
        for prefix, kf in SECTION_KIND.items():
            if section == prefix or section.startswith(prefix + "_"):
                return kf
        return None
    for section in sections:
        if section.startswith("handwritten") or section in ("bridges", "plain_too", "calling_thread_safe"):
            continue
        kind_form = section_kind(section)
        if kind_form is None:
            raise SystemExit("gl_kinds.txt: unknown section [%s]" % section)
        kind, form = kind_form
        for name in sections[section]:
            if name not in by_name:
                raise SystemExit("gl_kinds.txt: %s in [%s] is not in gl.api" % (name, section))
            e = by_name[name]
            if e.kind:
                raise SystemExit("gl_kinds.txt: %s is listed twice" % name)
            e.kind, e.form = kind, form
    for e in gl:
        if e.kind:
            continue
        e.by_rule = True
        if e.void and not any(p.is_pointer for p in e.params):
            e.kind, e.form = "recorded", "opt"
        else:
            e.kind, e.form = "sync", "plain"
    for section, names in sections.items():
        if section.startswith("handwritten"):
            for name in names:
                if name not in by_name:
                    raise SystemExit("gl_kinds.txt: %s in [%s] is not in gl.api" % (name, section))
                by_name[name].handwritten = True
    bridges = set(sections.get("bridges", []))
    for name in bridges:
        if name not in by_name:
            raise SystemExit("gl_kinds.txt: bridge %s is not in gl.api" % name)
    # Names with an _opt form that is not plainly recorded also export a
    # synchronous plain form; so do the names [plain_too] lists.
    for name in sections.get("plain_too", []):
        if name not in by_name or by_name[name].form != "opt":
            raise SystemExit("gl_kinds.txt: %s in [plain_too] has no _opt form" % name)
        by_name[name].plain_too = True
    for e in gl:
        if e.form == "opt" and e.kind in ("copy", "sync", "origin"):
            e.plain_too = True
    # The state queries of [handwritten] have their plain forms written by hand.
    for name in sections.get("handwritten", []):
        by_name[name].plain_by_hand = True
    check_calling_thread(gl, set(sections.get("calling_thread_safe", [])), by_name)
    return bridges


# GL objects a call acts on, read from its parameter names; the uniform
# setters, draws and dispatches act on the current program.
OBJECT_PARAMS = {
    "program": "program", "shader": "shader", "shaders": "shader", "pipeline": "pipeline",
    "pipelines": "pipeline", "sync": "sync", "texture": "texture", "textures": "texture", "buffer": "buffer",
    "buffers": "buffer", "framebuffer": "framebuffer", "framebuffers": "framebuffer",
    "renderbuffer": "renderbuffer", "renderbuffers": "renderbuffer", "sampler": "sampler", "samplers": "sampler",
    "array": "vertex array", "arrays": "vertex array", "cap": "capability"}


def objects_of(e):
    objs = {OBJECT_PARAMS[p.name] for p in e.params if p.name in OBJECT_PARAMS}
    if any(p.name in ("id", "ids") for p in e.params):
        objs.add("query" if "Quer" in e.name else "transform feedback" if "TransformFeedback" in e.name else "id")
    if re.match(r"gl(Program)?Uniform|glDraw|glMultiDraw|glDispatch", e.name):
        objs.add("program")
    return objs


def calling_thread_hazards(gl, safe):
    """Pairs of a name served on the calling thread and a recorded name that
    act on the same kind of object. The recorded one replays later on the
    worker, so the calling thread would act before it, out of the
    application's order: unless the calling-thread name reads nothing a
    recorded call can change ([calling_thread_safe]), that is a fault."""
    queued = {}
    for e in gl:
        if e.kind in ("recorded", "copy"):
            for o in objects_of(e):
                queued.setdefault(o, []).append(e.name)
    hazards = []
    for e in gl:
        if e.kind != "origin" or e.name in safe:
            continue
        for o in sorted(objects_of(e)):
            if o in queued:
                hazards.append((e.name, o, queued[o]))
    return hazards, queued


def check_calling_thread(gl, safe, by_name):
    for name in safe:
        if name not in by_name or by_name[name].kind != "origin":
            raise SystemExit("gl_kinds.txt: %s in [calling_thread_safe] is not served on the calling thread" % name)
    hazards, _ = calling_thread_hazards(gl, safe)
    if hazards:
        raise SystemExit("gl_kinds.txt: calls on the calling thread overtake recorded calls on the same object:\n" +
                         "\n".join("  %s (%s) after %s" % (n, o, " ".join(q[:6]) + (" ..." if len(q) > 6 else ""))
                                    for n, o, q in hazards))


# Command classes with bookkeeping of the buffer-mapping shadow; written by hand.
HANDWRITTEN_BRIDGES = {"glMapBufferRange", "glFlushMappedBufferRange", "glUnmapBuffer", "glVertexAttribPointer"}

HEADER = "// Generated by api/generate.py from the API description. Do not edit.\n"


def write(out_dir, name, text):
    path = os.path.join(out_dir, name)
    if os.path.exists(path):
        with open(path) as f:
            if f.read() == text:
                return  # keep the timestamp: nothing to rebuild
    with open(path, "w") as f:
        f.write(text)


# ---------------------------------------------------------------- kam_api.h

def gen_api_header(gl, egl):
    out = [HEADER, "#pragma once\n",
           "#include <EGL/egl.h>", "#include <EGL/eglext.h>", "#include <GLES3/gl32.h>",
           "#include <GLES2/gl2ext.h>", "#include <GLES/gl.h>", "#include <GLES/glext.h>", "",
           "namespace android {", "", "enum KamGlId : int {"]
    out += ["    kGl_%s," % e.name for e in gl]
    out += ["};", "constexpr int kKamGlCount = %d;" % len(gl), "", "enum KamEglId : int {"]
    out += ["    kEgl_%s," % e.name for e in egl]
    out += ["};", "constexpr int kKamEglCount = %d;" % len(egl), "",
            "// Names by id, null terminated.",
            "extern const char* const kKamGlNames[kKamGlCount + 1];",
            "extern const char* const kKamEglNames[kKamEglCount + 1];", "", "}  // namespace android", ""]
    seen = set()
    for e in gl + egl:
        if e.name in seen:
            continue
        seen.add(e.name)
        out.append("typedef %s (*%s)(%s);" % (e.ret, e.pfn(), ", ".join("%s %s" % (p.type, p.name) for p in e.params) or "void"))
    return "\n".join(out) + "\n"


def gen_names(gl, egl, namespace, gl_var, egl_var, extern_c=False):
    out = [HEADER, '#include "kam_api.h"', '#include "%s"' % ("platform/platform.h" if extern_c else "loader/KAMLoader.h"), ""]
    if extern_c:
        out.append('extern "C" {')
    else:
        out.append("namespace %s {" % namespace)
    out.append("const char* const %s[] = {" % gl_var)
    out += ['    "%s",' % e.name for e in gl]
    out += ["    nullptr,", "};"]
    out.append("const char* const %s[] = {" % egl_var)
    out += ['    "%s",' % e.name for e in egl]
    out += ["    nullptr,", "};"]
    out.append("}")
    return "\n".join(out) + "\n"


# ------------------------------------------------------------ command classes

def gen_bridges(gl, bridges):
    out = [HEADER, "#pragma once\n", '#include "loader/KAMLoader.h"', '#include "recording/Bridge.h"', "",
           "namespace android {", ""]
    for e in gl:
        if e.name not in bridges or e.name in HANDWRITTEN_BRIDGES:
            continue
        cls = e.name + "_Bridge"
        out.append("class %s final : public Bridge {" % cls)
        out.append("public:")
        if e.params:
            ctor_args = ", ".join("%s %s_" % (p.type, p.name) for p in e.params)
            init = ", ".join("%s(%s_)" % (p.name, p.name) for p in e.params)
            out.append("    %s(%s) : %s {}" % (cls, ctor_args, init))
        out.append("    void run() override { KAM_GL(%s)(%s); }" % (e.name, e.args()))
        out.append('    const char* getName() override { return "%s"; }' % e.name)
        for p in e.params:
            out.append("    %s %s;" % (p.type, p.name))
        out.append("};")
        out.append("")
    out.append("}  // namespace android")
    out.append("")
    out.append('#include "recording/MappingBridges.h"')
    return "\n".join(out) + "\n"


# ------------------------------------------------------------------- wrappers

def size_expr(e, expr):
    """Widens the integer parameters of a copy-size expression so that a
    hostile count cannot overflow int arithmetic."""
    ints = {p.name for p in e.params if not p.is_pointer}

    def widen(m):
        word = m.group(0)
        return "static_cast<long long>(%s)" % word if word in ints else word
    return re.sub(r"\b[A-Za-z_]\w*\b", widen, expr)


def sync_body(e, wname):
    ret = "" if e.void else "return "
    return "    %sc->mWorker->postSync([&] { return KAM_GL(%s)(%s); }, \"%s\");" % (ret, e.name, e.args(), wname)


def passthrough(e, ctx_test=True):
    ret = "return " if True else ""
    return ["    KAMContext* c = activeContext();",
            "    if (__builtin_expect(c == nullptr, 1)) %sKAM_GL(%s)(%s);" % (ret, e.name, e.args())]


def gen_gl_wrappers(gl, copy_sizes):
    by_name = {e.name: e for e in gl}
    out = [HEADER, "#include <cstring>", "", '#include "kam_bridges.h"', '#include "recording/Record.h"', "",
           "using namespace android;", "", 'extern "C" {', ""]
    for e in gl:
        if e.plain_too and not e.plain_by_hand:
            # The synchronous plain form, beside the _opt form the loader installs.
            wname = e.wrapper("plain")
            out += ["KAM_EXPORT %s {" % e.decl(wname)] + passthrough(e) + [sync_body(e, wname), "}", ""]
        if e.handwritten or e.kind == "special":
            continue
        wname = e.wrapper()
        head = "KAM_EXPORT %s {" % e.decl(wname)
        if e.kind == "origin":
            out += [head, "    return KAM_GL(%s)(%s);" % (e.name, e.args()), "}", ""]
        elif e.kind == "bounds":
            target = by_name[e.name[:-len("Bounds")]]
            out += [head, "    (void)%s;" % e.params[-1].name,
                    "    %s(%s);" % (target.wrapper(), ", ".join(p.name for p in e.params[:-1])), "}", ""]
        elif e.kind == "sync" or (e.kind == "copy" and copy_sizes[e.name][0] == "-"):
            out += [head] + passthrough(e) + [sync_body(e, wname), "}", ""]
        elif e.kind == "copy" and copy_sizes[e.name][1] == "shadow":
            # Until the shadow state sizes these copies, only calls without
            # client memory (null, or an offset into a bound buffer) record.
            ptr = copy_sizes[e.name][0]
            out += [head] + passthrough(e)
            out += ["    if (kamIsClientMemory(%s)) {" % ptr, "    " + sync_body(e, wname), "        return;", "    }",
                    "    kamRecord<%s_Bridge>(c%s);" % (e.name, "".join(", " + p.name for p in e.params)), "}", ""]
        elif e.kind == "recorded":
            out += [head] + passthrough(e) + ["    kamRecord<%s_Bridge>(c%s);" % (e.name, "".join(", " + p.name for p in e.params)), "}", ""]
        elif e.kind == "copy":
            param, expr = copy_sizes[e.name]
            ptr = next(p for p in e.params if p.name == param)
            out += [head] + passthrough(e)
            out += ["    if (kamIsClientMemory(%s)) {" % ptr.name,
                    "        const long long size = %s;" % size_expr(e, expr),
                    "        void* copy = size >= 1 ? c->mMemory.malloc(static_cast<size_t>(size), %s) : nullptr;" % ptr.name,
                    "        if (copy == nullptr) {",
                    "    " + sync_body(e, wname),
                    "            return;",
                    "        }",
                    "        %s = static_cast<%s>(copy);" % (ptr.name, ptr.type),
                    "    }",
                    "    kamRecord<%s_Bridge>(c%s);" % (e.name, "".join(", " + p.name for p in e.params)),
                    "}", ""]
        else:
            raise SystemExit("no wrapper for kind %s of %s" % (e.kind, e.name))
    out.append("}  // extern \"C\"")
    return "\n".join(out) + "\n"


def gen_gl_wrapper_decls(gl, egl):
    out = [HEADER, "#pragma once\n", '#include "kam_api.h"', '#include "loader/Export.h"', "",
           'extern "C" {']
    for e in gl:
        out.append("KAM_EXPORT %s;" % e.decl(e.wrapper()))
        if e.plain_too:
            out.append("KAM_EXPORT %s;" % e.decl(e.wrapper("plain")))
    for e in egl:
        if e.name.startswith("gl"):
            continue
        out.append("KAM_EXPORT %s;" % e.decl(e.wrapper()))
        if e.plain_too:
            out.append("KAM_EXPORT %s;" % e.decl(e.wrapper("plain")))
    out.append("}")
    return "\n".join(out) + "\n"


def gen_egl_wrappers(egl):
    out = [HEADER, '#include "recording/Record.h"', "", "using namespace android;", "", 'extern "C" {', ""]
    for e in egl:
        if e.name.startswith("gl"):
            continue
        forms = []
        if e.kind in ("pass", "sync", "async"):
            forms.append((e.form, e.kind))
        if e.plain_too:
            forms.append(("plain", "sync"))
        for form, kind in forms:
            wname = e.wrapper(form)
            head = "KAM_EXPORT %s {" % e.decl(wname)
            call = "KAM_EGL(%s)(%s)" % (e.name, e.args())
            if kind == "pass":
                out += [head, "    return %s;" % call, "}", ""]
                continue
            # An asynchronous post is a heap item that touches nothing of the
            # frame, so it need not wait for the last boundary's task.
            lookup = "activeContextInFlight" if kind == "async" else "activeContext"
            out += [head, "    KAMContext* c = %s();" % lookup,
                    "    if (c == nullptr) return %s;" % call]
            if kind == "sync":
                ret = "" if e.void else "return "
                out.append('    %sc->mWorker->postSync([&] { return %s; }, "%s");' % (ret, call, wname))
            else:
                captures = ", ".join(p.name for p in e.params)
                out.append('    c->mWorker->post(new WorkItem("%s", [%s] { %s; }), true);' % (wname, captures, call))
                if not e.void:
                    out.append("    return EGL_TRUE;")
            out += ["}", ""]
    out.append("}  // extern \"C\"")
    return "\n".join(out) + "\n"


# ------------------------------------------------------------ host platform

def gen_platform_stubs(gl, egl):
    """Public gl* entry points of the host platform: each jumps through the
    calling thread's GL table slot, or, for the queries the platform answers
    itself, through its EGL table."""
    egl_index = {e.name: i for i, e in enumerate(egl)}
    out = [HEADER, "#define GL_GLEXT_PROTOTYPES 1", '#include "kam_api.h"', '#include "platform/platform.h"', "",
           "#ifndef KAM_STUB_VISIBILITY", '#define KAM_STUB_VISIBILITY "default"', "#endif", "",
           'extern "C" {', ""]
    for i, e in enumerate(gl):
        ret = "" if e.void else "return "
        if e.name in egl_index:
            table = "kam_platform_egl_table[%d]" % egl_index[e.name]
        else:
            table = "kam_platform_gl_table()[%d]" % i
        out.append("__attribute__((visibility(KAM_STUB_VISIBILITY))) %s {" % e.decl(e.name))
        out.append("    %sreinterpret_cast<%s>(%s)(%s);" % (ret, e.pfn(), table, e.args()))
        out.append("}")
    out.append("")
    # Only libEGL hands the entry points out by name; in the GLES libraries
    # the table would be 1000 more relocations against names other libraries
    # in the process may also define.
    out.append("}")
    out.append("#ifdef KAM_STUB_PROC_TABLE")
    out.append('extern "C" {')
    out.append("const kamplatform::PublicProc kam_platform_gl_procs[] = {")
    for e in sorted(gl, key=lambda e: e.name):
        out.append('    {"%s", reinterpret_cast<void*>(&%s)},' % (e.name, e.name))
    out.append("};")
    out.append("const int kam_platform_gl_proc_count = %d;" % len(gl))
    out.append("}")
    # Entries for calls that cannot reach a driver (no current context, or a
    # name the driver lacks): each has its entry point's own prototype, so
    # that the caller finds a zero of the right type where it reads the result.
    out += ["", "namespace kamplatform {",
            "template <void (*Warn)(), class R, class... A>",
            "R zeroCall(A...) {", "    Warn();", "    return R();", "}", "",
            "template <void (*Warn)()>", "void fillZeroTable(void** table) {"]
    for i, e in enumerate(gl):
        types = ", ".join([e.ret] + [p.type for p in e.params])
        out.append("    table[%d] = reinterpret_cast<void*>(&zeroCall<Warn, %s>);" % (i, types))
    out += ["}", "",
            "void fillNoContextTable(void** table) { fillZeroTable<&noContextCall>(table); }",
            "void fillMissingEntries(void** table) {",
            "    void* missing[%d];" % len(gl),
            "    fillZeroTable<&unimplementedCall>(missing);",
            "    for (int i = 0; i < %d; ++i)" % len(gl),
            "        if (table[i] == nullptr) table[i] = missing[i];",
            "}",
            "}  // namespace kamplatform"]
    out.append("#endif")
    return "\n".join(out) + "\n"


# Platform EGL implementations written by hand (platform/egl_impl.cpp):
# everything that creates, destroys or binds the records behind handles.
PLATFORM_IMPL_HANDWRITTEN = {
    "eglCreateWindowSurface", "eglCreatePlatformWindowSurface", "eglCreatePixmapSurface",
    "eglCreatePlatformPixmapSurface", "eglCreatePbufferSurface", "eglCreatePbufferFromClientBuffer",
    "eglCreateStreamProducerSurfaceKHR", "eglDestroySurface", "eglCreateContext", "eglDestroyContext",
    "eglMakeCurrent", "eglGetCurrentContext", "eglGetCurrentSurface", "eglGetProcAddress", "eglReleaseThread",
    "glGetString", "glGetStringi", "glGetBooleanv", "glGetFloatv", "glGetIntegerv", "glGetInteger64v"}
# Public EGL functions with platform work around the table call.
PLATFORM_PUBLIC_HANDWRITTEN = {"eglMakeCurrent", "eglSwapBuffers", "eglSwapBuffersWithDamageKHR",
                               "eglDestroyContext", "eglReleaseThread", "eglGetError"}


def gen_platform_egl(egl):
    """The host platform's EGL side: the driver entry points by name, the
    forwarding implementations that only translate handles, the table in
    platform order, and the public egl* functions dispatching through it."""
    out = [HEADER, '#include "kam_api.h"', '#include "platform/platform.h"', "", "namespace kamplatform {", "",
           "void* gDriverEgl[%d];" % len(egl), "",
           "// Written by hand in platform/egl_impl.cpp."]
    out += ["%s;" % e.decl("impl_" + e.name) for e in egl if e.name in PLATFORM_IMPL_HANDWRITTEN]
    out += ["",
           "const char* const kDriverEglNames[%d] = {" % len(egl)]
    out += ['    "%s",' % e.name for e in egl]
    out += ["};", "", "namespace {", ""]
    for i, e in enumerate(egl):
        if e.name in PLATFORM_IMPL_HANDWRITTEN:
            continue
        args = []
        for p in e.params:
            if p.type == "EGLSurface":
                args.append("unwrapSurface(%s)" % p.name)
            elif p.type == "EGLContext":
                args.append("unwrapContext(%s)" % p.name)
            else:
                args.append(p.name)
        out.append("%s {" % e.decl("impl_" + e.name))
        out.append("    auto fn = reinterpret_cast<%s>(gDriverEgl[%d]);" % (e.pfn(), i))
        out.append("    if (fn == nullptr) return%s;" % ("" if e.void else " {}"))
        out.append("    return fn(%s);" % ", ".join(args))
        out.append("}")
    out += ["", "}  // namespace", ""]
    out.append('extern "C" {')
    out += ["%s;" % e.decl(e.name) for e in egl if not e.name.startswith("gl")]
    out.append("}")
    out.append("void fillEglTable(void** table) {")
    for i, e in enumerate(egl):
        out.append("    table[%d] = reinterpret_cast<void*>(&impl_%s);" % (i, e.name))
    out.append("}")
    out += ["", "}  // namespace kamplatform", "", "using namespace kamplatform;", "", 'extern "C" {', ""]
    for i, e in enumerate(egl):
        if e.name.startswith("gl") or e.name in PLATFORM_PUBLIC_HANDWRITTEN:
            continue
        ret = "" if e.void else "return "
        out.append("KAM_PUBLIC %s {" % e.decl(e.name))
        out.append("    ensureInit();")
        out.append("    %sreinterpret_cast<%s>(kam_platform_egl_table[%d])(%s);" % (ret, e.pfn(), i, e.args()))
        out.append("}")
    out += ["", "}  // extern \"C\"", "", "namespace kamplatform {",
            "const PublicProc kPublicEgl[] = {"]
    for e in sorted(egl, key=lambda e: e.name):
        if e.name.startswith("gl"):
            continue
        out.append('    {"%s", reinterpret_cast<void*>(&::%s)},' % (e.name, e.name))
    out += ["};", "const int kPublicEglCount = %d;" % sum(1 for e in egl if not e.name.startswith("gl")),
            "}  // namespace kamplatform"]
    return "\n".join(out) + "\n"


# ------------------------------------------------------------ test driver

def gen_fake_driver(gl, egl):
    """Origin tables for tests: every entry records its name, arguments and
    calling thread, and returns a value the test chose."""
    out = [HEADER, '#include "fake_driver.h"', "", "namespace fake {", "namespace {", ""]
    # A name in both tables gets an entry per table, so a call through the
    # wrong table shows in Call::egl.
    gl_names = {e.name for e in gl}
    seen = set()
    for e, prefix, via_egl in [(e, "fake_", False) for e in gl] + [
            (e, "fake_egl_" if e.name in gl_names else "fake_", True) for e in egl]:
        if prefix + e.name in seen:
            continue
        seen.add(prefix + e.name)
        out.append("%s {" % e.decl(prefix + e.name))
        arglist = ", ".join("bits(%s)" % p.name for p in e.params)
        call = 'record("%s", {%s}%s)' % (e.name, arglist, ", true" if via_egl else "")
        out.append("    %s;" % call if e.void else "    return fromBits<%s>(%s);" % (e.ret, call))
        out.append("}")
    out += ["", "}  // namespace", ""]
    out.append("void* glTable[kGlTableSize] = {")
    out += ["    reinterpret_cast<void*>(&fake_%s)," % e.name for e in gl]
    out.append("};")
    out.append("void* eglTable[kEglTableSize] = {")
    out += ["    reinterpret_cast<void*>(&fake_%s%s)," % ("egl_" if e.name in gl_names else "", e.name) for e in egl]
    out.append("};")
    out.append("}  // namespace fake")
    return "\n".join(out) + "\n"


def arg_value(entry_index, k):
    return 0x1000 + entry_index * 16 + k


def arg_locals(e, seed, small=False):
    """Declares v_<param> for every parameter of a test case: pointers into
    the readable test buffer, other parameters distinct numbers (small ones,
    with a fraction for floating types, when copy sizes must stay small)."""
    lines = []
    for k, p in enumerate(e.params):
        if p.is_pointer:
            lines.append("    %s v_%s = (%s)testPointer(%d);" % (p.type, p.name, p.type, seed + k))
        elif p.type in ("GLint64", "GLint64EXT", "GLuint64", "GLuint64EXT", "EGLTimeKHR", "EGLuint64KHR", "EGLnsecsANDROID"):
            # Both halves carry bits: a wrapper or command class that loses or
            # swaps the high word (a 64-bit member after an odd number of
            # words on 32-bit ARM) shows.
            lines.append("    %s v_%s = (%s)0x%Xull;" % (p.type, p.name, p.type, 0xF0E0D0C080000001 + k * 0x0101010101010101))
        elif small and re.search(r"double|clampd", p.type, re.I):
            lines.append("    %s v_%s = (%s)%r;" % (p.type, p.name, p.type, 1.0 + (k + 1) * 2.0 ** -45))
        elif small and re.search(r"float|clampf", p.type, re.I):
            lines.append("    %s v_%s = (%s)%d.5;" % (p.type, p.name, p.type, k + 1))
        else:
            lines.append("    %s v_%s = (%s)(uintptr_t)%d;" % (p.type, p.name, p.type, k + 1 if small else seed + k))
    lines.append("    o.args = {%s};" % ", ".join("bits(v_%s)" % p.name for p in e.params))
    return lines


def gen_call_cases(gl, egl):
    """One case per entry: calls a table entry with distinct arguments and
    reports what was passed and what came back."""
    out = [HEADER, '#include "call_cases.h"', "", "namespace cases {", "namespace {", ""]

    def case(e, idx, prefix):
        lines = ["void %s_%s(void* fn, Outcome& o) {" % (prefix, e.name)]
        lines += arg_locals(e, arg_value(idx, 0))
        call = "reinterpret_cast<%s>(fn)(%s)" % (e.pfn(), ", ".join("v_" + p.name for p in e.params))
        if e.void:
            lines.append("    %s;" % call)
        else:
            lines.append("    o.expected = bits(fake::resultAs<%s>());" % e.ret)
            lines.append("    o.result = bits(%s);" % call)
        lines.append("}")
        return lines

    for i, e in enumerate(gl):
        out += case(e, i, "gl")
    for i, e in enumerate(egl):
        out += case(e, 0x100 + i, "egl")
    out += ["", "}  // namespace", ""]

    def row(e, prefix):
        return '    {"%s", "%s", "%s", %s, %s, &%s_%s},' % (
            e.name, e.kind, e.form, "true" if e.void else "false", "true" if e.by_rule else "false", prefix, e.name)
    out.append("const Case glCases[] = {")
    out += [row(e, "gl") for e in gl]
    out.append("};")
    out.append("const Case eglCases[] = {")
    out += [row(e, "egl") for e in egl]
    out.append("};")
    out.append("const int glCaseCount = %d;" % len(gl))
    out.append("const int eglCaseCount = %d;" % len(egl))
    out.append("}  // namespace cases")
    return "\n".join(out) + "\n"


def gen_offload_cases(gl, copy_sizes, bridges):
    """One case per GL name for an offloaded thread: small distinct argument
    values (so that copy sizes stay small), for copies the byte count the
    layer should take and which argument is the copied pointer, and for
    recorded calls the size of the command the arena should hold."""
    out = [HEADER, "#include <cstring>", "", '#include "call_cases.h"', '#include "kam_bridges.h"',
           '#include "recording/Record.h"', "", "using namespace android;", "", "namespace cases {", "namespace {", ""]
    for i, e in enumerate(gl):
        out.append("void off_%s(void* fn, Outcome& o) {" % e.name)
        out += arg_locals(e, 0x3000 + i * 16, small=True)
        if e.kind in ("recorded", "copy") and e.name in bridges:
            out.append("    o.bridgeSize = sizeof(%s_Bridge);" % e.name)
        if e.kind == "copy" and e.name in copy_sizes and copy_sizes[e.name][0] != "-":
            param, expr = copy_sizes[e.name]
            idx = [p.name for p in e.params].index(param)
            o_expr = "-1" if expr == "shadow" else re.sub(
                r"\b(%s)\b" % "|".join(p.name for p in e.params), lambda m: "v_" + m.group(1), size_expr(e, expr))
            out.append("    o.copyArg = %d;" % idx)
            out.append("    o.copyBytes = %s;" % o_expr)
        call = "reinterpret_cast<%s>(fn)(%s)" % (e.pfn(), ", ".join("v_" + p.name for p in e.params))
        if e.void:
            out.append("    %s;" % call)
        else:
            out.append("    o.expected = bits(fake::resultAs<%s>());" % e.ret)
            out.append("    o.result = bits(%s);" % call)
        out.append("}")
    out += ["", "}  // namespace", "", "const Case offloadCases[] = {"]
    out += ['    {"%s", "%s", "%s", %s, %s, &off_%s},' % (
        e.name, e.kind, e.form, "true" if e.void else "false", "true" if e.by_rule else "false", e.name) for e in gl]
    out += ["};"]
    out += ["}  // namespace cases"]
    return "\n".join(out) + "\n"


def gen_bad_cases(gl, copy_sizes):
    """Hostile-argument cases, one per copying wrapper whose byte count is an
    expression: every integer the rule reads is the test's count, every enum
    the test's enum, a string the rule measures the test's text, and the
    pointer the one the test gives for the rule's byte count."""
    out = [HEADER, "#include <cstring>", "", '#include "call_cases.h"', '#include "kam_wrappers.h"',
           '#include "recording/Record.h"', "", "namespace cases {", "namespace {", ""]
    names = []
    for e in gl:
        if e.kind != "copy" or e.form != "opt" or e.name not in copy_sizes:
            continue
        param, expr = copy_sizes[e.name]
        if param == "-" or expr == "shadow":
            continue
        words = set(re.findall(r"\b[A-Za-z_]\w*\b", expr))
        out.append("void bad_%s(const BadArgs& a, BadCall& c) {" % e.name)
        for p in e.params:
            if p.is_pointer:
                continue
            enum = "enum" in p.type.lower()
            value = ("a.count" if p.name in words and not enum else "a.enumValue" if enum or p.name in words
                     else "0.5" if re.search(r"float|clampf", p.type, re.I) else "1")
            out.append("    const %s %s = static_cast<%s>(%s);" % (p.type, p.name, p.type, value))
        rule = re.sub(r"std::strlen\(\w+\)", "std::strlen(kBadText)", size_expr(e, expr))
        out += ["    const long long bytes = %s;" % rule, "    const void* p = nullptr;",
                "    if (!a.pointer(bytes, &p, a.user)) {", "        c.skipped = true;", "        return;", "    }"]
        for k, p in enumerate(e.params):
            if p.is_pointer:
                out.append("    %s %s = static_cast<%s>(%s);" % (p.type, p.name, p.type, "p" if p.name == param else "nullptr"))
                if p.name == param:
                    out.append("    c.pointerArg = %d;" % k)
        out += ["    c.ruleBytes = bytes;", "    c.args = {%s};" % ", ".join("bits(%s)" % p.name for p in e.params),
                "    %s(%s);" % (e.wrapper("opt"), e.args()), "}", ""]
        names.append(e.name)
    out += ["}  // namespace", "", "const BadCase badCases[] = {"]
    out += ['    {"%s", &bad_%s},' % (n, n) for n in names]
    out += ["};", "const int badCaseCount = %d;" % len(names), "}  // namespace cases"]
    return "\n".join(out) + "\n"


def exports(gl):
    """Every exported GL wrapper as (symbol, kind, form); the plain forms
    beside _opt ones have the form "plain-too"."""
    out = []
    for e in gl:
        out.append((e.wrapper(), e.kind, e.form))
        if e.plain_too:
            out.append((e.wrapper("plain"), "sync", "plain-too"))
    return out


def gen_report(gl, egl):
    from collections import Counter
    c = Counter((e.kind, e.form) for e in gl)
    lines = ["GL names: %d (table size 1276)" % len(gl),
             "classified by the lists: %d, by the rule: %d" % (sum(not e.by_rule for e in gl), sum(e.by_rule for e in gl))]
    for (kind, form), n in sorted(c.items()):
        lines.append("  %-9s %-5s %d" % (kind, form, n))
    lines.append("by rule:")
    lines.append("  recorded: " + " ".join(e.name for e in gl if e.by_rule and e.kind == "recorded"))
    lines.append("  sync:     " + " ".join(e.name for e in gl if e.by_rule and e.kind == "sync"))
    lines.append("exported GL wrappers by kind and form (api/gl_exports.txt pins these):")
    for (kind, form), n in sorted(Counter((k, f) for _, k, f in exports(gl)).items()):
        lines.append("  %-9s %-9s %d" % (kind, form, n))
    hazards, queued = calling_thread_hazards(gl, set())
    lines.append("objects acted on both by recorded calls and on the calling thread (names in [calling_thread_safe]):")
    for o in sorted({o for _, o, _ in hazards}):
        lines.append("  %s: calling thread %s" % (o, " ".join(n for n, oo, _ in hazards if oo == o)))
    lines.append("EGL table: %d entries" % len(egl))
    return "\n".join(lines) + "\n"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--api-dir", required=True)
    ap.add_argument("--out", required=True)
    ap.add_argument("--report", action="store_true", help="print the classification summary and exit")
    a = ap.parse_args()

    gl = read_gl(a.api_dir)
    egl = read_egl(a.api_dir)
    if len(gl) > 1276:
        raise SystemExit("%d GL names do not fit the platform's table of 1276" % len(gl))
    if len(egl) != 86:
        raise SystemExit("the platform's EGL table has 86 entries, egl.api has %d" % len(egl))
    bridges = classify(gl, a.api_dir)
    copy_sizes = read_copy_sizes(a.api_dir)
    for e in gl:
        if e.kind == "copy" and e.name not in copy_sizes:
            raise SystemExit("%s is a copy wrapper without a size in gl_copy_sizes.txt" % e.name)
        if e.kind in ("recorded", "copy"):
            bridges.add(e.name)
    # The exported set is pinned: a change that adds, drops or re-kinds
    # wrappers must change gl_exports.txt too.
    from collections import Counter
    pinned = {}
    for line in read_lines(os.path.join(a.api_dir, "gl_exports.txt")):
        kind, form, n = line.split()
        pinned[(kind, form)] = int(n)
    made = dict(Counter((k, f) for _, k, f in exports(gl)))
    if made != pinned and not a.report:
        raise SystemExit("exported wrappers %s differ from api/gl_exports.txt %s" % (sorted(made.items()), sorted(pinned.items())))
    if a.report:
        sys.stdout.write(gen_report(gl, egl))
        return

    os.makedirs(a.out, exist_ok=True)
    write(a.out, "kam_api.h", gen_api_header(gl, egl))
    write(a.out, "kam_names.cpp", gen_names(gl, egl, "android", "kKamGlNames", "kKamEglNames"))
    write(a.out, "kam_bridges.h", gen_bridges(gl, bridges))
    write(a.out, "kam_wrappers.h", gen_gl_wrapper_decls(gl, egl))
    write(a.out, "kam_gl_wrappers.cpp", gen_gl_wrappers(gl, copy_sizes))
    write(a.out, "kam_egl_wrappers.cpp", gen_egl_wrappers(egl))
    write(a.out, "platform_names.cpp", gen_names(gl, egl, None, "kam_platform_gl_names", "kam_platform_egl_names", extern_c=True))
    write(a.out, "platform_gl_stubs.cpp", gen_platform_stubs(gl, egl))
    write(a.out, "platform_egl.cpp", gen_platform_egl(egl))
    write(a.out, "fake_driver.cpp", gen_fake_driver(gl, egl))
    write(a.out, "call_cases.cpp", gen_call_cases(gl, egl))
    write(a.out, "offload_cases.cpp", gen_offload_cases(gl, copy_sizes, bridges))
    write(a.out, "bad_input_cases.cpp", gen_bad_cases(gl, copy_sizes))
    write(a.out, "classification.txt", gen_report(gl, egl))


if __name__ == "__main__":
    main()
