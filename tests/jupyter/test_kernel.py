"""The Vexel kernel against the Jupyter kernel test suite (jupyter_kernel_test)."""
import unittest

import jupyter_kernel_test


class VexelKernelTests(jupyter_kernel_test.KernelTests):
    kernel_name = "vexel"
    language_name = "vexel"
    file_extension = ".vx"

    code_hello_world = 'print("hello, world");'
    code_stderr = 'WARNING("careful");'
    code_execute_result = [
        {"code": "1 + 2;", "result": "3"},
        {"code": "2^100;", "result": "1267650600228229401496703205376"},
        {"code": "[1, 2.5, \"s\"];", "result": '[1, 2.5, "s"]'},
    ]
    code_generate_error = 'error "this went wrong";'

    completion_samples = [
        {"text": "prin", "matches": {"print"}},
        {"text": "x := kernela", "matches": {"kernelargs"}},
    ]
    # A backslash escapes only inside "...": a back-quoted name may end in one, a string may not.
    complete_code_samples = ["1 + 2;", "f := proc(x) x^2 end proc:", "if 1 < 2 then 3 fi;", "", "?print",
                             "`dir\\` := 5; `dir\\` + 1;"]
    incomplete_code_samples = ["f := proc(x)", "1 + ", "[1, 2", '"open string', '"escaped \\";']
    invalid_code_samples = ["1 + 2);", "end;"]

    code_inspect_sample = "print"
    supported_history_operations = ("tail", "range", "search")
    code_history_pattern = "1 + *"


if __name__ == "__main__":
    unittest.main()
