# JNI headers for the managed bindings, and the Java compiler for the managed class.
#
#   ad_jni           - interface target with the JNI include directories: the NDK's on
#                      Android, the JDK's on hosts.
#   AD_HAVE_JNI      - ON when jni.h was found (always on Android).
#   AD_HAVE_JAVAC    - ON when javac was found (hosts; the managed class and its tests).
#
# On hosts the Debian OpenJDK 17 (scripts/install-deps) is preferred over any other JDK in
# /usr/lib/jvm, unless JAVA_HOME (CMake or environment variable) names one explicitly.

add_library(ad_jni INTERFACE)

if(ANDROID)
  # The NDK sysroot carries jni.h on the default include path.
  set(AD_HAVE_JNI ON)
  set(AD_HAVE_JAVAC OFF)
  return()
endif()

if(NOT JAVA_HOME AND NOT DEFINED ENV{JAVA_HOME})
  file(GLOB _ad_jdks LIST_DIRECTORIES true /usr/lib/jvm/java-17-openjdk-*)
  foreach(_ad_jdk IN LISTS _ad_jdks)
    if(EXISTS ${_ad_jdk}/include/jni.h AND EXISTS ${_ad_jdk}/bin/javac)
      set(JAVA_HOME ${_ad_jdk})
      break()
    endif()
  endforeach()
endif()

# Only the headers matter: the library is loaded into a running VM and links no JVM.
# Naming a component keeps FindJNI from requiring AWT, which headless JDKs lack.
find_package(JNI OPTIONAL_COMPONENTS JVM)
if(JNI_INCLUDE_DIRS AND EXISTS "${JAVA_INCLUDE_PATH}/jni.h")
  set(AD_HAVE_JNI ON)
  target_include_directories(ad_jni SYSTEM INTERFACE ${JAVA_INCLUDE_PATH} ${JAVA_INCLUDE_PATH2})
else()
  set(AD_HAVE_JNI OFF)
  message(WARNING "jni.h not found: the library is built without its managed bindings "
                  "(install openjdk-17-jdk-headless, see scripts/install-deps)")
endif()

find_package(Java 11 COMPONENTS Development Runtime)
if(Java_FOUND)
  set(AD_HAVE_JAVAC ON)
else()
  set(AD_HAVE_JAVAC OFF)
  message(WARNING "javac not found: the managed class and its tests are not built")
endif()
