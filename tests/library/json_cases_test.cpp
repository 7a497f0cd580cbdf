// The cases of the public JSON parsing test suite under their names there: y_ is to be read, n_ to
// be refused; i_ is left to the reader, and is here with what this library decides and why.
#include <json/value.h>
#include <json/version.h>

#include <cerrno>
#include <string>
#include <string_view>

#include "private_tree.h"

namespace kelotls::test {
namespace {

using namespace std::string_view_literals;

struct Case {
  const char* name;
  std::string_view text;
};

// clang-format off
constexpr Case kDocuments[] = {
    {"y_array_arraysWithSpaces", "[[]   ]"},
    {"y_array_empty", "[]"},
    {"y_array_empty-string", R"([""])"},
    {"y_array_ending_with_newline", R"(["a"])"},
    {"y_array_false", "[false]"},
    {"y_array_heterogeneous", R"([null, 1, "1", {}])"},
    {"y_array_null", "[null]"},
    {"y_array_with_1_and_newline", "[1\n]"},
    {"y_array_with_leading_space", " [1]"},
    {"y_array_with_several_null", "[1,null,null,null,2]"},
    {"y_array_with_trailing_space", "[2] "},
    {"y_number", "[123e65]"},
    {"y_number_0e+1", "[0e+1]"},
    {"y_number_0e1", "[0e1]"},
    {"y_number_after_space", "[ 4]"},
    {"y_number_double_close_to_zero", "[-0.000000000000000000000000000000000000000000000000000000000000000000000000000001]"},
    {"y_number_int_with_exp", "[20e1]"},
    {"y_number_minus_zero", "[-0]"},
    {"y_number_negative_int", "[-123]"},
    {"y_number_negative_one", "[-1]"},
    {"y_number_negative_zero", "[-0]"},
    {"y_number_real_capital_e", "[1E22]"},
    {"y_number_real_capital_e_neg_exp", "[1E-2]"},
    {"y_number_real_capital_e_pos_exp", "[1E+2]"},
    {"y_number_real_exponent", "[123e45]"},
    {"y_number_real_fraction_exponent", "[123.456e78]"},
    {"y_number_real_neg_exp", "[1e-2]"},
    {"y_number_real_pos_exponent", "[1e+2]"},
    {"y_number_simple_int", "[123]"},
    {"y_number_simple_real", "[123.456789]"},
    {"y_object", R"({"asd":"sdf", "dfg":"fgh"})"},
    {"y_object_basic", R"({"asd":"sdf"})"},
    {"y_object_duplicated_key", R"({"a":"b","a":"c"})"},
    {"y_object_duplicated_key_and_value", R"({"a":"b","a":"b"})"},
    {"y_object_empty", "{}"},
    {"y_object_empty_key", R"({"":0})"},
    {"y_object_escaped_null_in_key", R"({"foo\u0000bar": 42})"},
    {"y_object_extreme_numbers", R"({ "min": -1.0e+28, "max": 1.0e+28 })"},
    {"y_object_long_strings", R"({"x":[{"id": "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"}], "id": "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"})"},
    {"y_object_simple", R"({"a":[]})"},
    {"y_object_string_unicode", R"({"title":"\u041f\u043e\u043b\u0442\u043e\u0440\u0430 \u0417\u0435\u043c\u043b\u0435\u043a\u043e\u043f\u0430" })"},
    {"y_object_with_newlines", "{\n\"a\": \"b\"\n}"},
    {"y_string_1_2_3_bytes_UTF-8_sequences", R"(["\u0060\u012a\u12AB"])"},
    {"y_string_accepted_surrogate_pair", R"(["\uD801\udc37"])"},
    {"y_string_accepted_surrogate_pairs", R"(["\ud83d\ude39\ud83d\udc8d"])"},
    {"y_string_allowed_escapes", R"(["\"\\\/\b\f\n\r\t"])"},
    {"y_string_backslash_and_u_escaped_zero", R"(["\\u0000"])"},
    {"y_string_backslash_doublequotes", R"(["\""])"},
    {"y_string_comments", R"(["a/*b*/c/*d//e"])"},
    {"y_string_double_escape_a", R"(["\\a"])"},
    {"y_string_double_escape_n", R"(["\\n"])"},
    {"y_string_escaped_control_character", R"(["\u0012"])"},
    {"y_string_escaped_noncharacter", R"(["\uFFFF"])"},
    {"y_string_in_array", R"(["asd"])"},
    {"y_string_in_array_with_leading_space", R"([ "asd"])"},
    {"y_string_last_surrogates_1_and_2", R"(["\uDBFF\uDFFF"])"},
    {"y_string_nbsp_uescaped", R"(["new\u00A0line"])"},
    {"y_string_nonCharacterInUTF-8_U+10FFFF", "[\"\xF4\x8F\xBF\xBF\"]"},
    {"y_string_nonCharacterInUTF-8_U+FFFF", "[\"\xEF\xBF\xBF\"]"},
    {"y_string_null_escape", R"(["\u0000"])"},
    {"y_string_one-byte-utf-8", R"(["\u002c"])"},
    {"y_string_pi", "[\"\xCF\x80\"]"},
    {"y_string_reservedCharacterInUTF-8_U+1BFFF", "[\"\xF0\x9B\xBF\xBF\"]"},
    {"y_string_simple_ascii", R"(["asd "])"},
    {"y_string_space", R"(" ")"},
    {"y_string_surrogates_U+1D11E_MUSICAL_SYMBOL_G_CLEF", R"(["\uD834\uDd1e"])"},
    {"y_string_three-byte-utf-8", R"(["\u0821"])"},
    {"y_string_two-byte-utf-8", R"(["\u0123"])"},
    {"y_string_u+2028_line_sep", "[\"\xE2\x80\xA8\"]"},
    {"y_string_u+2029_par_sep", "[\"\xE2\x80\xA9\"]"},
    {"y_string_uEscape", R"(["\u0061\u30af\u30EA\u30b9"])"},
    {"y_string_uescaped_newline", R"(["new\u000Aline"])"},
    {"y_string_unescaped_char_delete", "[\"\x7F\"]"},
    {"y_string_unicode", R"(["\uA66D"])"},
    {"y_string_unicodeEscapedBackslash", R"(["\u005C"])"},
    {"y_string_unicode_2", "[\"\xE2\x8D\x82\xE3\x88\xB4\xE2\x8D\x82\"]"},
    {"y_string_unicode_U+10FFFE_nonchar", R"(["\uDBFF\uDFFE"])"},
    {"y_string_unicode_U+1FFFE_nonchar", R"(["\uD83F\uDFFE"])"},
    {"y_string_unicode_U+200B_ZERO_WIDTH_SPACE", R"(["\u200B"])"},
    {"y_string_unicode_U+2064_invisible_plus", R"(["\u2064"])"},
    {"y_string_unicode_U+FDD0_nonchar", R"(["\uFDD0"])"},
    {"y_string_unicode_U+FFFE_nonchar", R"(["\uFFFE"])"},
    {"y_string_unicode_escaped_double_quote", R"(["\u0022"])"},
    {"y_string_utf8", "[\"\xE2\x82\xAC\xF0\x9D\x84\x9E\"]"},
    {"y_string_with_del_character", "[\"a\x7F""a\"]"},
    {"y_structure_lonely_false", "false"},
    {"y_structure_lonely_int", "42"},
    {"y_structure_lonely_negative_real", "-0.1"},
    {"y_structure_lonely_null", "null"},
    {"y_structure_lonely_string", R"("asd")"},
    {"y_structure_lonely_true", "true"},
    {"y_structure_string_empty", R"("")"},
    {"y_structure_trailing_newline", "[\"a\"]\n"},
    {"y_structure_true_in_array", "[true]"},
    {"y_structure_whitespace_array", " [] "},
};

constexpr Case kNoDocuments[] = {
    {"n_array_1_true_without_comma", "[1 true]"},
    {"n_array_a_invalid_utf8", "[a\xE5]"},
    {"n_array_colon_instead_of_comma", R"(["": 1])"},
    {"n_array_comma_after_close", R"([""],)"},
    {"n_array_comma_and_number", "[,1]"},
    {"n_array_double_comma", "[1,,2]"},
    {"n_array_double_extra_comma", R"(["x",,])"},
    {"n_array_extra_close", R"(["x"]])"},
    {"n_array_extra_comma", R"(["",])"},
    {"n_array_incomplete", R"(["x")"},
    {"n_array_incomplete_invalid_value", "[x"},
    {"n_array_inner_array_no_comma", "[3[4]]"},
    {"n_array_invalid_utf8", "[\xFF]"},
    {"n_array_items_separated_by_semicolon", "[1:2]"},
    {"n_array_just_comma", "[,]"},
    {"n_array_just_minus", "[-]"},
    {"n_array_missing_value", R"([   , ""])"},
    {"n_array_newlines_unclosed", "[\"a\",\n4\n,1,"},
    {"n_array_number_and_comma", "[1,]"},
    {"n_array_number_and_several_commas", "[1,,]"},
    {"n_array_spaces_vertical_tab_formfeed", "[\"\va\"\\f]"},
    {"n_array_star_inside", "[*]"},
    {"n_array_unclosed", R"(["")"},
    {"n_array_unclosed_trailing_comma", "[1,"},
    {"n_array_unclosed_with_new_lines", "[1,\n1\n,1"},
    {"n_array_unclosed_with_object_inside", "[{}"},
    {"n_incomplete_false", "[fals]"},
    {"n_incomplete_null", "[nul]"},
    {"n_incomplete_true", "[tru]"},
    {"n_multidigit_number_then_00", "123\0"sv},
    {"n_number_++", "[++1234]"},
    {"n_number_+1", "[+1]"},
    {"n_number_+Inf", "[+Inf]"},
    {"n_number_-01", "[-01]"},
    {"n_number_-1.0.", "[-1.0.]"},
    {"n_number_-2.", "[-2.]"},
    {"n_number_-NaN", "[-NaN]"},
    {"n_number_.-1", "[.-1]"},
    {"n_number_.2e-3", "[.2e-3]"},
    {"n_number_0.1.2", "[0.1.2]"},
    {"n_number_0.3e", "[0.3e]"},
    {"n_number_0.3e+", "[0.3e+]"},
    {"n_number_0.e1", "[0.e1]"},
    {"n_number_0_capital_E", "[0E]"},
    {"n_number_0_capital_E+", "[0E+]"},
    {"n_number_0e", "[0e]"},
    {"n_number_0e+", "[0e+]"},
    {"n_number_1.0e", "[1.0e]"},
    {"n_number_1.0e+", "[1.0e+]"},
    {"n_number_1.0e-", "[1.0e-]"},
    {"n_number_1_000", "[1 000.0]"},
    {"n_number_1eE2", "[1eE2]"},
    {"n_number_2.e+3", "[2.e+3]"},
    {"n_number_2.e-3", "[2.e-3]"},
    {"n_number_2.e3", "[2.e3]"},
    {"n_number_9.e+", "[9.e+]"},
    {"n_number_Inf", "[Inf]"},
    {"n_number_NaN", "[NaN]"},
    {"n_number_U+FF11_fullwidth_digit_one", "[\xEF\xBC\x91]"},
    {"n_number_expression", "[1+2]"},
    {"n_number_hex_1_digit", "[0x1]"},
    {"n_number_hex_2_digits", "[0x42]"},
    {"n_number_infinity", "[Infinity]"},
    {"n_number_invalid+-", "[0e+-1]"},
    {"n_number_invalid-negative-real", "[-123.123foo]"},
    {"n_number_invalid-utf-8-in-bigger-int", "[123\xE5]"},
    {"n_number_invalid-utf-8-in-exponent", "[1e1\xE5]"},
    {"n_number_invalid-utf-8-in-int", "[0\xE5]\n"},
    {"n_number_minus_infinity", "[-Infinity]"},
    {"n_number_minus_sign_with_trailing_garbage", "[-foo]"},
    {"n_number_minus_space_1", "[- 1]"},
    {"n_number_neg_int_starting_with_zero", "[-012]"},
    {"n_number_neg_real_without_int_part", "[-.123]"},
    {"n_number_neg_with_garbage_at_end", "[-1x]"},
    {"n_number_real_garbage_after_e", "[1ea]"},
    {"n_number_real_with_invalid_utf8_after_e", "[1e\xE5]"},
    {"n_number_real_without_fractional_part", "[1.]"},
    {"n_number_starting_with_dot", "[.123]"},
    {"n_number_with_alpha", "[1.2a-3]"},
    {"n_number_with_alpha_char", "[1.8011670033376514H-308]"},
    {"n_number_with_leading_zero", "[012]"},
    {"n_object_bad_value", R"(["x", truth])"},
    {"n_object_bracket_key", "{[: \"x\"}\n"},
    {"n_object_comma_instead_of_colon", R"({"x", null})"},
    {"n_object_double_colon", R"({"x"::"b"})"},
    {"n_object_emoji", "{\xF0\x9F\x87\xA8\xF0\x9F\x87\xAD}"},
    {"n_object_garbage_at_end", R"({"a":"a" 123})"},
    {"n_object_key_with_single_quotes", "{key: 'value'}"},
    {"n_object_lone_continuation_byte_in_key_and_trailing_comma", "{\"\xB9\":\"0\",}"},
    {"n_object_missing_colon", R"({"a" b})"},
    {"n_object_missing_key", R"({:"b"})"},
    {"n_object_missing_semicolon", R"({"a" "b"})"},
    {"n_object_missing_value", R"({"a":)"},
    {"n_object_no-colon", R"({"a")"},
    {"n_object_non_string_key", "{1:1}"},
    {"n_object_non_string_key_but_huge_number_instead", "{9999E9999:1}"},
    {"n_object_repeated_null_null", "{null:null,null:null}"},
    {"n_object_several_trailing_commas", R"({"id":0,,,,,})"},
    {"n_object_single_quote", "{'a':0}"},
    {"n_object_trailing_comma", R"({"id":0,})"},
    {"n_object_trailing_comment", R"({"a":"b"}/**/)"},
    {"n_object_trailing_comment_open", R"({"a":"b"}/**//)"},
    {"n_object_trailing_comment_slash_open", R"({"a":"b"}//)"},
    {"n_object_trailing_comment_slash_open_incomplete", R"({"a":"b"}/)"},
    {"n_object_two_commas_in_a_row", R"({"a":"b",,"c":"d"})"},
    {"n_object_unquoted_key", R"({a: "b"})"},
    {"n_object_unterminated-value", R"({"a":"a)"},
    {"n_object_with_single_string", R"({ "foo" : "bar", "a" })"},
    {"n_object_with_trailing_garbage", R"({"a":"b"}#)"},
    {"n_single_space", " "},
    {"n_string_1_surrogate_then_escape", R"(["\uD800\"])"},
    {"n_string_1_surrogate_then_escape_u", R"(["\uD800\u"])"},
    {"n_string_1_surrogate_then_escape_u1", R"(["\uD800\u1"])"},
    {"n_string_1_surrogate_then_escape_u1x", R"(["\uD800\u1x"])"},
    {"n_string_accentuated_char_no_quotes", "[\xC3\xA9]"},
    {"n_string_backslash_00", "[\"\\\0\"]"sv},
    {"n_string_escape_x", R"(["\x00"])"},
    {"n_string_escaped_backslash_bad", R"(["\\\"])"},
    {"n_string_escaped_ctrl_char_tab", "[\"\\\t\"]"},
    {"n_string_escaped_emoji", "[\"\\\xF0\x9F\x8C\x80\"]"},
    {"n_string_incomplete_escape", R"(["\"])"},
    {"n_string_incomplete_escaped_character", R"(["\u00A"])"},
    {"n_string_incomplete_surrogate", R"(["\uD834\uDd"])"},
    {"n_string_incomplete_surrogate_escape_invalid", R"(["\uD800\uD800\x"])"},
    {"n_string_invalid-utf-8-in-escape", "[\"\\u\xE5\"]"},
    {"n_string_invalid_backslash_esc", R"(["\a"])"},
    {"n_string_invalid_unicode_escape", R"(["\uqqqq"])"},
    {"n_string_invalid_utf8_after_escape", "[\"\\\xE5\"]"},
    {"n_string_leading_uescaped_thinspace", R"([\u0020"asd"])"},
    {"n_string_no_quotes_with_bad_escape", R"([\n])"},
    {"n_string_single_doublequote", R"(")"},
    {"n_string_single_quote", "['single quote']"},
    {"n_string_single_string_no_double_quotes", "abc"},
    {"n_string_start_escape_unclosed", R"(["\)"},
    {"n_string_unescaped_ctrl_char", "[\"a\0a\"]"sv},
    {"n_string_unescaped_newline", "[\"new\nline\"]"},
    {"n_string_unescaped_tab", "[\"\t\"]"},
    {"n_string_unicode_CapitalU", R"("\UA66D")"},
    {"n_string_with_trailing_garbage", R"(""x)"},
    {"n_structure_U+2060_word_joined", "[\xE2\x81\xA0]"},
    {"n_structure_UTF8_BOM_no_data", "\xEF\xBB\xBF"},
    {"n_structure_angle_bracket_.", "<.>"},
    {"n_structure_angle_bracket_null", "[<null>]"},
    {"n_structure_array_trailing_garbage", "[1]x"},
    {"n_structure_array_with_extra_array_close", "[1]]"},
    {"n_structure_array_with_unclosed_string", R"(["asd])"},
    {"n_structure_ascii-unicode-identifier", "a\xC3\xA5"},
    {"n_structure_capitalized_True", "[True]"},
    {"n_structure_close_unopened_array", "1]"},
    {"n_structure_comma_instead_of_closing_brace", R"({"x": true,)"},
    {"n_structure_double_array", "[][]"},
    {"n_structure_end_array", "]"},
    {"n_structure_incomplete_UTF8_BOM", "\xEF\xBB{}"},
    {"n_structure_lone-invalid-utf-8", "\xE5"},
    {"n_structure_lone-open-bracket", "["},
    {"n_structure_no_data", ""},
    {"n_structure_null-byte-outside-string", "[\0]"sv},
    {"n_structure_number_with_trailing_garbage", "2@"},
    {"n_structure_object_followed_by_closing_object", "{}}"},
    {"n_structure_object_unclosed_no_value", R"({"":)"},
    {"n_structure_object_with_comment", R"({"a":/*comment*/"b"})"},
    {"n_structure_object_with_trailing_garbage", R"({"a": true} "x")"},
    {"n_structure_open_array_apostrophe", "['"},
    {"n_structure_open_array_comma", "[,"},
    {"n_structure_open_array_open_object", "[{"},
    {"n_structure_open_array_open_string", R"(["a)"},
    {"n_structure_open_array_string", R"(["a")"},
    {"n_structure_open_object", "{"},
    {"n_structure_open_object_close_array", "{]"},
    {"n_structure_open_object_comma", "{,"},
    {"n_structure_open_object_open_array", "{["},
    {"n_structure_open_object_open_string", R"({"a)"},
    {"n_structure_open_object_string_with_apostrophes", "{'a'"},
    {"n_structure_open_open", R"(["\{["\{["\{["\{)"},
    {"n_structure_single_eacute", "\xE9"},
    {"n_structure_single_star", "*"},
    {"n_structure_trailing_#", R"({"a":"b"}#{})"},
    {"n_structure_uescaped_LF_before_string", R"([\u000A""])"},
    {"n_structure_unclosed_array", "[1"},
    {"n_structure_unclosed_array_partial_null", "[ false, nul"},
    {"n_structure_unclosed_array_unfinished_false", "[ true, fals"},
    {"n_structure_unclosed_array_unfinished_true", "[ false, tru"},
    {"n_structure_unclosed_object", R"({"asd":"asd")"},
    {"n_structure_unicode-identifier", "\xC3\xA5"},
    {"n_structure_whitespace_U+2060_word_joiner", "\xE2\x81\xA0"},
    {"n_structure_whitespace_formfeed", "[\f]"},
};

constexpr Case kTakenThoughLeftOpen[] = {
    // Too close to zero for a double: the nearest one, zero, is as good as any other rounding.
    {"i_number_double_huge_neg_exp", "[123.456e-789]"},
    {"i_number_real_underflow", "[123e-10000000]"},
    // Too large for 64 bits, not for a double, which is what such a number becomes.
    {"i_number_too_big_neg_int", "[-123123123123123123123123123123]"},
    {"i_number_too_big_pos_int", "[100000000000000000000]"},
    {"i_number_very_big_negative_int", "[-237462374673276894279832749832423479823246327846]"},
    // The bytes of strings are taken as they are: one odd name may not cost the whole data store.
    {"i_string_UTF-8_invalid_sequence", "[\"\xE6\x97\xA5\xD1\x88\xFA\"]"},
    {"i_string_UTF8_surrogate_U+D800", "[\"\xED\xA0\x80\"]"},
    {"i_string_invalid_utf-8", "[\"\xFF\"]"},
    {"i_string_iso_latin_1", "[\"\xE9\"]"},
    {"i_string_lone_utf8_continuation_byte", "[\"\x81\"]"},
    {"i_string_not_in_unicode_range", "[\"\xF4\xBF\xBF\xBF\"]"},
    {"i_string_overlong_sequence_2_bytes", "[\"\xC0\xAF\"]"},
    {"i_string_overlong_sequence_6_bytes", "[\"\xFC\x83\xBF\xBF\xBF\xBF\"]"},
    {"i_string_overlong_sequence_6_bytes_null", "[\"\xFC\x80\x80\x80\x80\x80\"]"},
    {"i_string_truncated-utf-8", "[\"\xE0\xFF\"]"},
    // jsoncpp only asks that another escape follows the first half of a pair of surrogates, and makes a
    // character of the two; a second half alone becomes bytes that are no valid UTF-8.
    {"i_object_key_lone_2nd_surrogate", R"({"\uDFAA":0})"},
    {"i_string_1st_valid_surrogate_2nd_invalid", R"(["\uD888\u1234"])"},
    {"i_string_incomplete_surrogate_pair", R"(["\uDd1ea"])"},
    {"i_string_incomplete_surrogates_escape_valid", R"(["\uD800\uD800\n"])"},
    {"i_string_lone_second_surrogate", R"(["\uDFAA"])"},
};

// Too large for a double. Until 1.9.6 jsoncpp refuses them, and takes them for infinite from then on: either
// way no level, because that is a whole number.
constexpr bool kTakesTooLarge = JSONCPP_VERSION_HEXA >= 0x01090600;
constexpr Case kTooLarge[] = {
    {"i_number_huge_exp", "[0.4e00669999999999999999999999999999999999999999999999999999999999999999999999999999999999999999999999969999999006]"},
    {"i_number_neg_int_huge_exp", "[-1e+9999]"},
    {"i_number_pos_double_huge_exp", "[1.5e+9999]"},
    {"i_number_real_neg_overflow", "[-123123e100000]"},
    {"i_number_real_pos_overflow", "[123123e100000]"},
};

constexpr Case kRefusedThoughLeftOpen[] = {
    // The first half of a pair of surrogates without an escape after it is no character.
    {"i_string_1st_surrogate_but_2nd_missing", R"(["\uDADA"])"},
    {"i_string_incomplete_surrogate_and_escape_valid", R"(["\uD800\n"])"},
    {"i_string_invalid_lonely_surrogate", R"(["\ud800"])"},
    {"i_string_invalid_surrogate", R"(["\ud800abc"])"},
    {"i_string_inverted_surrogates_U+1D11E", R"(["\uDd1e\uD834"])"},
    // Documents are UTF-8 without a byte order mark; NUL bytes are refused everywhere.
    {"i_string_UTF-16LE_with_BOM", "\xFF\xFE[\0\"\0\xE9\0\"\0]\0"sv},
    {"i_string_utf16BE_no_BOM", "\0[\0\"\0\xE9\0\"\0]"sv},
    {"i_string_utf16LE_no_BOM", "[\0\"\0\xE9\0\"\0]\0"sv},
    {"i_structure_UTF-8_BOM_empty_object", "\xEF\xBB\xBF{}"},
};
// clang-format on

constexpr char kFile[] = "/usr/kelo/case.json";

std::string repeated(int count, const std::string& text) {
  std::string all;
  for (int index = 0; index < count; ++index) {
    all += text;
  }
  return all;
}

void expect_read(const char* name, std::string_view text) {
  SCOPED_TRACE(name);
  write_file(kFile, std::string(text));
  Json::Value value;
  errno = 0;
  EXPECT_TRUE(value.fromFile(kFile));
  EXPECT_EQ(errno, 0);

  EXPECT_TRUE(value.toFile(kFile));
  Json::Value again;
  EXPECT_TRUE(again.fromFile(kFile));
  EXPECT_EQ(again, value);
}

void expect_refused(const char* name, std::string_view text) {
  SCOPED_TRACE(name);
  write_file(kFile, std::string(text));
  Json::Value value("as it was");
  errno = EPERM;  // a value that neither the calls nor the parser give
  EXPECT_FALSE(value.fromFile(kFile));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(value, Json::Value("as it was"));
}

using JsonCases = PrivateTree;

TEST_F(JsonCases, AreReadWhereTheGrammarSaysSo) {
  for (const auto& [name, text] : kDocuments) {
    expect_read(name, text);
  }
}

TEST_F(JsonCases, AreRefusedWhereTheGrammarSaysSo) {
  for (const auto& [name, text] : kNoDocuments) {
    expect_refused(name, text);
  }
  expect_refused("n_structure_100000_opening_arrays", repeated(100000, "["));
  expect_refused("n_structure_open_array_object", repeated(50000, R"([{"":)") + "\n");
}

TEST_F(JsonCases, AreReadWhereTheGrammarLeavesItOpenAndTheyDoNoHarm) {
  for (const auto& [name, text] : kTakenThoughLeftOpen) {
    expect_read(name, text);
  }
}

TEST_F(JsonCases, AreRefusedWhereTheGrammarLeavesItOpenAndTheyMeanNothing) {
  for (const auto& [name, text] : kRefusedThoughLeftOpen) {
    expect_refused(name, text);
  }
  for (const auto& [name, text] : kTooLarge) {
    (kTakesTooLarge ? expect_read : expect_refused)(name, text);
  }
  // Documents nest 256 deep at most.
  expect_refused("i_structure_500_nested_arrays", repeated(500, "[") + repeated(500, "]"));
}

}  // namespace
}  // namespace kelotls::test
