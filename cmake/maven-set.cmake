# Lays out the Maven artifact set of one version, as a repository:
#   MAVEN_DIR/com/quorbit/ambrix/VERSION/ambrix-VERSION{.pom,.jar,-sources.jar,-javadoc.jar}
# with a .sha1 and a .md5 beside each, and MAVEN_DIR/com/quorbit/ambrix/maven-metadata-local.xml,
# as Maven's own install would. Run with cmake -P and:
#   MAVEN_DIR VERSION POM JAR SOURCES (the source folders, joined by ':') JAVADOC JAR_TOOL WORK
set(artifact ${MAVEN_DIR}/com/quorbit/ambrix)
set(folder ${artifact}/${VERSION})
set(base ${folder}/ambrix-${VERSION})
file(REMOVE_RECURSE ${artifact} ${WORK})
file(MAKE_DIRECTORY ${folder} ${WORK})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN}\n${out}")
  endif()
endfunction()

file(COPY_FILE ${POM} ${base}.pom)
file(COPY_FILE ${JAR} ${base}.jar)
string(REPLACE ":" ";" source_folders "${SOURCES}")
set(source_args)
foreach(folder ${source_folders})
  list(APPEND source_args -C ${folder} com)
endforeach()
run(${JAR_TOOL} --create --file ${base}-sources.jar ${source_args})
# The Javadoc of the public API; any doclint warning fails the build.
run(${JAVADOC} -quiet -Xdoclint:all -Werror --release 17 -encoding UTF-8 -d ${WORK}/javadoc
    -sourcepath ${SOURCES} -subpackages com.quorbit -windowtitle "ambrix ${VERSION}"
    -doctitle "ambrix ${VERSION}")
run(${JAR_TOOL} --create --file ${base}-javadoc.jar -C ${WORK}/javadoc .)

string(TIMESTAMP updated "%Y%m%d%H%M%S" UTC)
file(WRITE ${artifact}/maven-metadata-local.xml
"<?xml version=\"1.0\" encoding=\"UTF-8\"?>
<metadata>
  <groupId>com.quorbit</groupId>
  <artifactId>ambrix</artifactId>
  <versioning>
    <latest>${VERSION}</latest>
    <release>${VERSION}</release>
    <versions>
      <version>${VERSION}</version>
    </versions>
    <lastUpdated>${updated}</lastUpdated>
  </versioning>
</metadata>
")

foreach(file ${base}.pom ${base}.jar ${base}-sources.jar ${base}-javadoc.jar ${artifact}/maven-metadata-local.xml)
  foreach(algorithm SHA1 MD5)
    file(${algorithm} ${file} sum)
    string(TOLOWER ${algorithm} extension)
    file(WRITE ${file}.${extension} ${sum})
  endforeach()
endforeach()
