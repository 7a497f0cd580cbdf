# Read by CTest after the lists of cases. A deliberate leak of a BIO has OpenSSL's frames, and only
# the slow unwinder gets past them to the function that its suppression names; it takes twenty times
# as long, so the other cases go without. A case that is missing here fails with its leak.
foreach(case IN LISTS flow_tests_TESTS openssl_call_tests_TESTS
                      kelotlsctl_tests_TESTS kelotlsctl_explain_tests_TESTS)
  if(case MATCHES "DhFile|Corrupt|NoBioForTheReasons|TakesNoMoreOfTheReasons|ForEachAttempt|WhenTheFileCannotBeUsed")
    set_tests_properties("${case}" PROPERTIES ENVIRONMENT
      "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_LIST_DIR}/deliberate_leaks.lsan:print_suppressions=0:fast_unwind_on_malloc=0")
  endif()
endforeach()
