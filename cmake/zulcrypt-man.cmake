# Writes zulcrypt(1) with help2man from the tool's --help and --version, each
# command's own --help becoming a subsection of COMMANDS.
# usage: cmake -DTOOL=<zulcrypt> -DHELP2MAN=<help2man> -DOUT=<zulcrypt.1> -P zulcrypt-man.cmake
execute_process(COMMAND ${TOOL} --help OUTPUT_VARIABLE top RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${TOOL} --help failed (${status})")
endif()

# Shown as written: troff's escape character and control lines neutralised.
function(verbatim text out)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out} ".nf\n${text}.fi\n" PARENT_SCOPE)
endfunction()

# The command names are the first words of the lines under "Subcommands:".
string(REGEX MATCH "\nSubcommands:\n[^\n]+(\n  [^\n]+)*" listing "${top}")
string(REGEX MATCHALL "\n  [^ \n]+" names "${listing}")
set(include "[COMMANDS]\n")
foreach(name ${names})
  string(STRIP "${name}" name)
  execute_process(COMMAND ${TOOL} ${name} --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${TOOL} ${name} --help failed (${status})")
  endif()
  verbatim("${help}" help)
  string(APPEND include ".SS ${name}\n${help}")
endforeach()
# help2man would fill the example lines into one paragraph.
string(REGEX MATCH "\nExamples:\n.*" examples "${top}")
string(REGEX REPLACE "^\nExamples:\n" "" examples "${examples}")
verbatim("${examples}" examples)
string(APPEND include "[=EXAMPLES]\n${examples}")
string(APPEND include "[SEE ALSO]\n.BR openssl-enc (1),\n.BR snmpd (8)\n")
file(WRITE ${OUT}.include "${include}")

execute_process(COMMAND ${HELP2MAN} --no-info --section=1 --include=${OUT}.include --output=${OUT}
                        "--name=SNMPv3 user keys, digests, HMACs and file encryption" ${TOOL}
                RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "help2man failed (${status})")
endif()
