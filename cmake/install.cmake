# Installation: DIR/lib (libambrix.so and the stand-in kernel libvexelc.so),
# DIR/share/java (ambrix.jar, the shell's jar and the Jupyter kernel's),
# DIR/share/maven-repo (the Maven artifact com.quorbit:ambrix),
# DIR/bin/vexel, the shell's launcher, which finds the rest relative to
# itself, and DIR/share/jupyter/kernels/vexel, the Jupyter kernelspec.
#
# cpack -G DEB packages the same under /usr. Its dependencies are Debian
# package names: the Java runtime and JLine by hand, the libraries' own
# (GMP, the C and C++ runtimes) found by dpkg-shlibdeps.

# Installed, libambrix still finds the kernel beside itself.
set_target_properties(ambrix PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS ambrix vexelc LIBRARY DESTINATION lib)
install(FILES ${CMAKE_BINARY_DIR}/java/ambrix.jar ${CMAKE_BINARY_DIR}/java/vexelshell.jar
              ${CMAKE_BINARY_DIR}/java/vexeljupyter.jar
        DESTINATION share/java)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/shell/vexel-installed DESTINATION bin RENAME vexel)
# The Maven artifact set, under Debian's Java repository layout
# (DIR/share/maven-repo), beside Debian's version link: the artifact as
# version "debian", as Debian's maven-repo-helper makes it.
install(DIRECTORY ${CMAKE_BINARY_DIR}/maven/ DESTINATION share/maven-repo)
install(FILES ${CMAKE_BINARY_DIR}/java/ambrix-debian.pom DESTINATION share/maven-repo/com/quorbit/ambrix/debian)
install(CODE "file(CREATE_LINK ../${PROJECT_VERSION}/ambrix-${PROJECT_VERSION}.jar
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/maven-repo/com/quorbit/ambrix/debian/ambrix-debian.jar\"
    SYMBOLIC)")
# The README, which the notebook's Help menu opens.
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/ambrix)
# The Jupyter kernelspec, naming the installed launcher: an installed
# package appears in Jupyter without further steps.
install(CODE "execute_process(COMMAND ${PROJECT_SOURCE_DIR}/jupyter/kernelspec.sh
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/jupyter/kernels/vexel\"
    \"\${CMAKE_INSTALL_PREFIX}/bin/vexel\" COMMAND_ERROR_IS_FATAL ANY)")
# The Pygments lexer (jupyter console, nbconvert) where Debian's Python finds
# its packages: under /usr, lib/python3/dist-packages.
install(CODE "execute_process(COMMAND ${PROJECT_SOURCE_DIR}/jupyter/pygments.sh
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/python3/dist-packages\" ${PROJECT_VERSION}
    COMMAND_ERROR_IS_FATAL ANY)")

set(CPACK_PACKAGE_NAME ambrix)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ambrix maintainers <ambrix@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Vexel computer-algebra kernel for Java programs, and the Vexel shell")
set(CPACK_PACKAGE_DESCRIPTION
    "ambrix embeds the Vexel kernel in a Java program (ambrix.jar, with its native library libambrix.so). It ships a stand-in kernel, libvexelc.so, and the interactive Vexel shell.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION math)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "default-jre-headless (>= 2:1.17) | java17-runtime-headless, libjline3-java, libjeromq-java, libgoogle-gson-java, libbatik-java")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
