// Has the platform's own build system read a build file of this repository as a tree would, in
// vendor/crash/tarnix: Soong as Debian packages it, over a tree that is in memory only.
//
//	judge REPOSITORY BUILD_FILE
//
// Each fault is a line of standard error with its place, and the status is 1. Without one, the
// working directory gets build.ninja, the commands as the tree would run them; its target
// tarnix_objects is every object of this repository's modules.
package main

import (
	"bytes"
	"fmt"
	"io/fs"
	"os"
	"path/filepath"
	"reflect"
	"strings"
	"unsafe"

	"android/soong/android"
	"android/soong/cc"

	"github.com/google/blueprint"
	"github.com/google/blueprint/proptools"
)

const room = "vendor/crash/tarnix"

// The libraries of the platform that the modules may name. What lies outside this repository is
// not judged.
const platform = `
cc_defaults {
    name: "platform_library",
    vendor_available: true,
}
cc_library { name: "libbase", defaults: ["platform_library"] }
cc_library { name: "liblog", defaults: ["platform_library"] }
cc_library { name: "libz", defaults: ["platform_library"] }
cc_library_static { name: "libgmock", defaults: ["platform_library"] }
cc_library_static { name: "libgtest", defaults: ["platform_library"] }
cc_library_static { name: "libgtest_main", defaults: ["platform_library"] }
`

func endWith(errors []error) {
	for _, err := range errors {
		fmt.Fprintln(os.Stderr, err)
	}
	if len(errors) > 0 {
		os.Exit(1)
	}
}

func must(err error) {
	if err != nil {
		endWith([]error{err})
	}
}

// The repository's files by their names in the tree, and what the platform's modules name. Soong asks
// only whether they are there.
func files(repository string) map[string][]byte {
	found := map[string][]byte{"libc.map.txt": nil, "libdl.map.txt": nil, "libm.map.txt": nil,
		"prebuilts/ndk/current/sources/cxx-stl/llvm-libc++/libs/x": nil}
	must(filepath.WalkDir(repository, func(path string, entry fs.DirEntry, err error) error {
		must(err)
		name, _ := filepath.Rel(repository, path)
		if name == "build" || name == ".git" {
			return filepath.SkipDir
		}
		if !entry.IsDir() {
			found[filepath.Join(room, name)] = nil
		}
		return nil
	}))
	return found
}

// The objects that a module's rules make, each from one source.
func objects(module blueprint.Module) []string {
	var found []string
	rules := module.(interface{ BuildParamsForTests() []android.BuildParams })
	for _, step := range rules.BuildParamsForTests() {
		if step.Rule.String() == "android/soong/cc.cc" {
			found = append(found, step.Output.String())
		}
	}
	return found
}

// A configuration for tests lets missing files pass, and has no call to change that.
func insistOnFiles(config android.Config) {
	field := reflect.ValueOf(config).Field(0).Elem().FieldByName("testAllowNonExistentPaths")
	*(*bool)(unsafe.Pointer(field.UnsafeAddr())) = false
}

func main() {
	repository, buildFile := os.Args[1], os.Args[2]
	text, err := os.ReadFile(buildFile)
	must(err)
	tree := files(repository)
	tree[room+"/Android.bp"] = text
	must(os.MkdirAll("out", 0777))

	config := cc.TestConfig("out", android.Android, nil, platform, tree)
	// A device whose vendor image is built with the tree, as Android 9's treble devices are.
	config.TestProductVariables.DeviceVndkVersion = proptools.StringPtr("current")
	config.TestProductVariables.Platform_vndk_version = proptools.StringPtr("28")
	insistOnFiles(config)
	context := cc.CreateTestContext()
	context.PostDepsMutators(android.RegisterNeverallowMutator)
	context.Register(config)
	_, errors := context.ParseFileList(".", []string{"Android.bp", room + "/Android.bp"})
	endWith(errors)
	_, errors = context.PrepareBuildActions(config)
	endWith(errors)

	var ninja bytes.Buffer
	must(context.WriteBuildFile(&ninja))
	// The last section would pack the platform's libraries for other trees, and ninja takes it for
	// broken without real ones.
	text, _, found := bytes.Cut(ninja.Bytes(), []byte("# Singleton: vendor-snapshot\n"))
	if !found {
		must(fmt.Errorf("build.ninja has no section vendor-snapshot"))
	}
	var ours []string
	context.VisitAllModules(func(module blueprint.Module) {
		if context.ModuleDir(module) == room {
			ours = append(ours, objects(module)...)
		}
	})
	text = append(text, "\nbuild tarnix_objects: phony "+strings.Join(ours, " ")+"\n"...)
	must(os.WriteFile("build.ninja", text, 0666))
}
