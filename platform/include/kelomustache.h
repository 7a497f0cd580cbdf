// Rendering of mustache templates into files, as the appliance's template library offers it.
#ifndef KELOMUSTACHE_H
#define KELOMUSTACHE_H

#include <json/value.h>

#include <string>
#include <vector>

#define KELOMUSTACHE_API __attribute__((visibility("default")))

namespace KELO {

// Renders the template at a path and replaces the contents of the output file, which is created
// when missing.
//
// The language is the whole core of mustache: comments, set delimiters, interpolation (with & " < >
// escaped, and nothing else), dotted names, the implicit iterator, sections, inverted sections, and
// partials, which are looked up beside the template as "<name>.mustache". A partial that is missing
// renders as nothing.
//
// "contexts" is the context stack, its last element on top; it is not changed. Strings render as
// they are, numbers in decimal (reals with the fewest digits that read back the same), booleans as
// "true" and "false"; null, objects, arrays and absent names as nothing. A section is skipped for
// an absent name, false, null and an empty array, and for nothing else: 0, "" and {} are values
// like others.
//
// Returns true when the whole text is in the output file. Returns false, with the output file
// not touched, when
// - the template is missing, unreadable, no regular file or larger than 1 MiB (a FIFO is never
//   waited for);
// - a tag is empty, not closed, or begins with "{{{" and does not end with "}}}"; a name holds
//   white space, a delimiter or an empty part ("a..b"); a set delimiter tag does not give two
//   delimiters free of "=" and white space; a section is not closed, closed under another name or
//   closed without having been opened. It does not matter whether the fault is in a part that
//   would be rendered;
// - a partial that the rendering reaches has one of these faults (other than that it is missing);
// - sections and partials nest deeper than 64, recursion included;
// - the template and the partials that the rendering reaches are together larger than 2 MiB, where
//   a file counts once by whatever names it is reached; or there are more than 1,024 names of
//   partials;
// - the text would be larger than 16 MiB, or would take more than 2^22 steps to make: tags, pieces
//   of text, items of lists, values that a name is looked for in, lines that are indented and what
//   each line's indentation is put together from; and one more for every 64 bytes of a name or of
//   indentation, and 64 for a real number;
// - a path contains a NUL byte, or memory runs out.
// Returns false as well when the output file cannot be opened, written or synchronised; what it
// then holds is undefined. Within these limits a rendering takes at most 64 MB of memory and about
// a second, whatever the template. Nothing is thrown. No state, no locks: any thread may call.
KELOMUSTACHE_API bool RenderMustacheToFile(const std::string& template_path,
                                           std::vector<Json::Value>& contexts,
                                           const std::string& output_path);

}  // namespace KELO

#endif
